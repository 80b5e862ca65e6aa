// sliceio: inspect, convert and draw slice files from the command line.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Tool.h"

namespace {

const char* const kUsage = R"(usage: sliceio COMMAND [ARGUMENTS]

Commands:
  formats
      List the file-type codes, the formats they name, their usual extensions and
      whether this build can read and write them.
  info FILE [--type CODE] [--layers] [--json]
      Scan a slice file and print its layer count, lowest and highest height, layer
      thickness, extents and totals (contours, vector blocks, contour length, surface
      area). --layers adds one row per layer, --json prints one JSON object instead.
  convert IN OUT [--type CODE] [--to CODE] [--units mm|inch] [--resolution N]
      Read IN and write it as OUT. The output format is --to, else OUT's extension
      (.cli writes binary CLI with long coordinates). --units is the unit of the
      output file (mm by default); --resolution the number of file steps per unit,
      by default the step size of the input, or 1/1000 mm when the input has none.
  check FILE [--type CODE]
      Read every layer of FILE in full and compare what the file declares with what
      it holds; print one line per problem and exit with status 1 when there is any.
  svg FILE OUT.svg --layer N [--type CODE]
      Draw layer N (numbered from 0) as an SVG picture about 800 pixels wide. The
      picture shows the layer from above with y pointing up: contour outlines in blue,
      vectors in red.
  sample OUT.cli [--layers N]
      Write a generated sample build (20 layers by default) as binary CLI.
  help, --help
      Print this text.

The format of an input is recognised from its content, else from its extension;
--type CODE overrides both ('sliceio formats' lists the codes). Lengths are printed in
millimetres and areas in square millimetres.

Exit status: 0 on success, 1 when a file cannot be read or written, 2 for a wrong
command line.
)";

int Dispatch(int argc, char** argv)
{
    if (argc < 2)
        throw sliceio::UsageError("missing command");
    const std::string command = argv[1];
    const std::vector<std::string> words(argv + 2, argv + argc);
    for (const std::string& word : words)
        if (word == "--help" || word == "-h")
        {
            std::fputs(kUsage, stdout);
            return 0;
        }
    if (command == "help" || command == "--help" || command == "-h")
    {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == "formats")
        return sliceio::RunFormats(words);
    if (command == "info")
        return sliceio::RunInfo(words);
    if (command == "convert")
        return sliceio::RunConvert(words);
    if (command == "check")
        return sliceio::RunCheck(words);
    if (command == "svg")
        return sliceio::RunSvg(words);
    if (command == "sample")
        return sliceio::RunSample(words);
    throw sliceio::UsageError("unknown command '" + command + "'");
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        return Dispatch(argc, argv);
    }
    catch (const sliceio::UsageError& e)
    {
        std::fprintf(stderr, "sliceio: %s (see 'sliceio --help')\n", e.what());
        return 2;
    }
    catch (const sliceio::Failure& e)
    {
        std::fprintf(stderr, "sliceio: %s\n", e.what());
        return 1;
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "sliceio: unexpected error: %s\n", e.what());
        return 1;
    }
}
