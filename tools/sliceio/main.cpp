// sliceio: inspect, convert and draw slice files from the command line.
#include <algorithm>
#include <cstdio>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tool.h"

namespace {

const char* const kUsage = R"(usage: sliceio COMMAND [ARGUMENTS]

Commands:
  formats
      List the file-type codes, the formats they name, their usual extensions and
      whether this build can read and write them.
  info FILE [--type CODE] [--layers] [--json [--declared]]
      Scan a slice file and print its layer count, lowest and highest height, layer
      thickness, extents and totals (contours, vector blocks, contour length, surface
      area), what the header declares and a warning line for each thing that does
      not add up. --layers adds one row per layer, --json prints one JSON object
      instead (with "warnings" when there are some, and with --declared a "declared"
      object: layer count, extents, part labels and the format's own rows).
  convert IN OUT [--type CODE] [--to CODE] [--units mm|inch] [--resolution N]
          [--layers A:B] [--contours-as-vectors | --no-contours] [--drop-empty-layers]
          [--input-units VALUE] [--settings FILE.json]
      Read IN and write it as OUT, one part of OUT per part of IN. The output format
      is --to, else OUT's extension (.cli writes binary CLI with long coordinates).
      --units is the unit of the output file (mm by default); --resolution the number
      of file steps per unit, by default the step size of the input, or 1/1000 mm. A
      format that reads back at one scale only gets that scale; an explicit one that
      would not read back is refused. --layers takes layers A to B (from 0; A: and :B
      are open). Empty layers are kept unless --drop-empty-layers. Contours become
      vector blocks for formats that hold vectors only, or always with
      --contours-as-vectors; --no-contours leaves them out. --input-units reads IN at
      VALUE mm per step whatever its header says. --settings gives what the output
      format needs and the input lacks (see the README); the last line says what was
      carried and what was not.
  convert --show-settings [--settings FILE.json]
      Print the effective settings: general keys and every format's section with its
      defaults, overlaid with the file.
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

// A command that reports a failure through the exceptions below, and its options.
int Dispatch(int argc, char** argv)
{
    using namespace sliceio;
    CLI::App app("sliceio: inspect, convert and draw slice files", "sliceio");
    // Help is the text above, for the tool and for each command alike.
    app.set_help_flag();
    bool help = false;
    app.add_flag("-h,--help", help);
    app.fallthrough();
    app.require_subcommand(0, 1);

    CLI::App* help1 = app.add_subcommand("help");
    CLI::App* formats = app.add_subcommand("formats");

    InfoOptions info;
    CLI::App* infoCommand = app.add_subcommand("info");
    infoCommand->add_option("FILE", info.Path)->required();
    infoCommand->add_option("--type", info.Type);
    infoCommand->add_flag("--layers", info.Layers);
    infoCommand->add_flag("--json", info.Json);
    infoCommand->add_flag("--declared", info.Declared);

    CheckOptions check;
    CLI::App* checkCommand = app.add_subcommand("check");
    checkCommand->add_option("FILE", check.Path)->required();
    checkCommand->add_option("--type", check.Type);

    ConvertOptions convert;
    std::vector<std::string> files;
    CLI::App* convertCommand = app.add_subcommand("convert");
    convertCommand->add_option("IN OUT", files)->expected(0, 2);
    convertCommand->add_option("--type", convert.Type);
    convertCommand->add_option("--to", convert.To);
    convertCommand->add_option("--units", convert.Units)->check(CLI::IsMember({"mm", "inch"}));
    convertCommand->add_option("--resolution", convert.Resolution)->check(CLI::Range(1, INT32_MAX));
    convertCommand->add_option("--input-units", convert.InputUnits);
    convertCommand->add_option("--layers", convert.Layers);
    convertCommand->add_option("--settings", convert.Settings);
    convertCommand->add_flag("--contours-as-vectors", convert.ContoursAsVectors);
    convertCommand->add_flag("--no-contours", convert.NoContours);
    convertCommand->add_flag("--drop-empty-layers", convert.DropEmptyLayers);
    convertCommand->add_flag("--show-settings", convert.ShowSettings);

    SvgOptions svg;
    std::int64_t svgLayer = 0;
    CLI::App* svgCommand = app.add_subcommand("svg");
    svgCommand->add_option("FILE", svg.Path)->required();
    svgCommand->add_option("OUT.svg", svg.Out)->required();
    svgCommand->add_option("--layer", svgLayer)->required()->check(CLI::Range(std::int64_t{0}, std::int64_t{INT64_MAX}));
    svgCommand->add_option("--type", svg.Type);

    SampleOptions sample;
    CLI::App* sampleCommand = app.add_subcommand("sample");
    sampleCommand->add_option("OUT.cli", sample.Out)->required();
    sampleCommand->add_option("--layers", sample.Layers)->check(CLI::Range(1, 100000));

    // --help anywhere prints the help, whatever else the command line says.
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
        {
            std::fputs(kUsage, stdout);
            return 0;
        }
    if (argc < 2)
        throw UsageError("missing command");
    if (argv[1][0] != '-')
    {
        const auto& commands = app.get_subcommands([](CLI::App*) { return true; });
        if (std::none_of(commands.begin(), commands.end(), [&](CLI::App* c) { return c->get_name() == argv[1]; }))
            throw UsageError(std::string("unknown command '") + argv[1] + "'");
    }
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        std::string message = e.what();
        message.erase(message.find_last_not_of(" \n") + 1);
        for (char& c : message)
            if (c == '\n')
                c = ' ';
        throw UsageError(message);
    }

    if (help || help1->parsed())
    {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (formats->parsed())
        return RunFormats();
    if (infoCommand->parsed())
        return RunInfo(info);
    if (checkCommand->parsed())
        return RunCheck(check);
    if (convertCommand->parsed())
    {
        if (files.size() == 2)
        {
            convert.In = files[0];
            convert.Out = files[1];
        }
        else if (!convert.ShowSettings || files.size() == 1)
            throw UsageError("missing argument: expected IN and OUT");
        return RunConvert(convert);
    }
    if (svgCommand->parsed())
    {
        svg.Layer = static_cast<std::uint64_t>(svgLayer);
        return RunSvg(svg);
    }
    if (sampleCommand->parsed())
        return RunSample(sample);
    throw UsageError("missing command");
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
