#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <fmt/format.h>

#include "../../contracts/M2DSliceStack.h"
#include "../../contracts/MUnit.h"
#include "../../framework/FormatDescriptor.h"
#include "../../framework/M2DSliceContainerIO.h"
#include "FormatHooks.h"
#include "Tool.h"

namespace fs = std::filesystem;

namespace sliceio {

namespace {

// One status line on stderr, redrawn at most ten times a second, and only when stderr is
// a terminal: redirected output stays free of it.
class ProgressLine
{
public:
    ProgressLine() : _enabled(isatty(STDERR_FILENO) == 1) {}
    ~ProgressLine() { Clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void Count(const std::string& label, std::uint64_t count)
    {
        if (_Due())
            _Show(fmt::format("{}: {} layers", label, count));
    }
    void Fraction(const std::string& label, std::uint64_t done, std::uint64_t total)
    {
        if (!_Due() || total == 0)
            return;
        constexpr int kWidth = 30;
        const int filled = static_cast<int>(kWidth * done / total);
        _Show(fmt::format("{}: [{}{}] {:3}%", label, std::string(filled, '#'), std::string(kWidth - filled, ' '),
                          100 * done / total));
    }
    void Clear()
    {
        if (_shown)
            std::fputs("\r\033[K", stderr);
        _shown = false;
    }

private:
    bool _Due()
    {
        if (!_enabled)
            return false;
        const auto now = std::chrono::steady_clock::now();
        if (_shown && now - _last < std::chrono::milliseconds(100))
            return false;
        _last = now;
        return true;
    }
    void _Show(const std::string& text)
    {
        std::fprintf(stderr, "\r\033[K%s", text.c_str());
        std::fflush(stderr);
        _shown = true;
    }

    bool _enabled;
    bool _shown = false;
    std::chrono::steady_clock::time_point _last;
};

// Counts the layers of a load, which pulses once per layer.
class ReadProgress : public ZanSDK::Common::IProgressDelegate
{
public:
    ReadProgress(ProgressLine& line, std::string label) : _line(line), _label(std::move(label)) {}
    void OnPulse() override { _line.Count(_label, ++_layers); }

private:
    ProgressLine& _line;
    std::string _label;
    std::uint64_t _layers = 0;
};

// Hands a source's layers on unchanged and shows how far the writer has got; the write
// itself reports no progress.
class ProgressSource : public ISource2DSlices
{
public:
    ProgressSource(const ISource2DSlices& source, ProgressLine& line, std::string label)
        : _source(source), _line(line), _label(std::move(label))
    {
    }

protected:
    std::int32_t _OnGetSliceThickness() const override { return _source.GetSliceThickness(); }
    const MSliceFileParameters* _OnGetSliceParameters() const override { return _source.GetSliceParameters(); }
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override { return _source.GetSliceIOParameters(); }
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override { return _source.GetXYArea(i); }
    M2DSliceXYArea _OnGetXYArea() const override { return _source.GetXYArea(); }
    std::uint64_t _OnGetNumSlices() const override { return _source.GetNumSlices(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override { return M2DSliceZArea(_source.GetSliceZPosition(i)); }
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override
    {
        _Tick(i);
        return _source.GetSlice(i);
    }
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override
    {
        _Tick(i);
        _source.GetSlice(slice, i);
    }
    void _OnGetSlices(std::vector<std::shared_ptr<const M2DSlice>>& slices, std::uint64_t i) const override
    {
        _Tick(i);
        _source.GetSlices(slices, i);
    }
    void _OnGetSliceItems(M2DSliceConstDataItems& items, std::uint64_t i) const override
    {
        _Tick(i);
        _source.GetSliceItems(items, i);
    }
    void _OnStartGettingSlices() const override { _source.StartGettingSlices(); }
    void _OnStopGettingSlices() const override { _source.StopGettingSlices(); }
    const PersistentProperties* _OnGetProperties() const override { return _source.GetProperties(); }

private:
    void _Tick(std::uint64_t i) const { _line.Fraction(_label, i + 1, _source.GetNumSlices()); }

    const ISource2DSlices& _source;
    ProgressLine& _line;
    std::string _label;
};

// Steps per unit that keep the input's step size: the input's own resolution when its
// reader found one, else steps of 1/1000 mm.
std::int32_t DefaultResolution(const std::shared_ptr<I2DSliceIO>& reader, std::int32_t unitConversion)
{
    M2DSliceContainerIOProperties properties;
    reader->GetIoProperties(properties);
    double step = MUnit::GetIE() / 1000.0; // internal units per file step
    if (properties.InverseResolution > 1)
        step = static_cast<double>(properties.UnitConversionFactor) / properties.InverseResolution;
    return static_cast<std::int32_t>(std::clamp(std::lround(unitConversion / step), 1L, long{INT32_MAX}));
}

} // namespace

int RunConvert(const std::vector<std::string>& words)
{
    const Arguments args(words, {"--type", "--to", "--units", "--resolution"}, {});
    args.ExpectPositional(2, "IN and OUT");
    const std::string& in = args.Positional(0);
    const std::string& out = args.Positional(1);
    const std::string units = args.Value("--units").value_or("mm");
    if (units != "mm" && units != "inch")
        throw UsageError("--units expects mm or inch, not '" + units + "'");
    const std::int32_t unitConversion =
        units == "mm" ? MUnit::GetIE() : static_cast<std::int32_t>(std::lround(MUnit::GetIE() * 25.4));
    const std::int64_t resolutionOption = args.Number("--resolution", 1, INT32_MAX, 0);

    CheckInputFile(in);
    const InputFormat inFormat = ResolveInputFormat(in, args.Value("--type"));
    CheckOutputFile(out);
    const short outCode = ResolveOutputFormat(out, args.Value("--to"));
    std::error_code ec;
    if (fs::equivalent(in, out, ec))
        throw Failure(out + ": is the input file; write to another file");

    ProgressLine progress;
    M2DSliceStack stack;
    M2DSliceContainerIO reader(static_cast<unsigned short>(inFormat.Code));
    // Keep the blocks as the file has them instead of joining neighbours of equal label.
    I2DSliceIO::ReadOptions options;
    options.VectorBlocks.MergeBlocks = false;
    reader.SetReadOptions(options);
    bool read = false;
    std::string caught;
    try
    {
        read = reader.ReadContainer(stack, WidePath(in), true, std::make_shared<ReadProgress>(progress, "reading " + in));
    }
    catch (const std::exception& e)
    {
        caught = e.what();
    }
    progress.Clear();
    if (!read)
        throw Failure(DescribeReadFailure(inFormat, in, reader.GetSliceIO().get(), caught));
    if (stack.GetNumSlices() == 0)
        throw Failure(in + ": has no layers; nothing was written");

    M2DSliceContainerIO writer(static_cast<unsigned short>(outCode));
    WriterSetup setup;
    setup.Code = outCode;
    setup.Writer = writer.GetSliceIO().get();
    setup.Sources = {&stack};
    setup.LayerThickness = stack.GetSliceThickness();
    setup.UnitConversion = unitConversion;
    setup.InverseResolution = resolutionOption > 0 ? static_cast<std::int32_t>(resolutionOption)
                                                   : DefaultResolution(reader.GetSliceIO(), unitConversion);
    setup.ScaleGiven = resolutionOption > 0 || args.Value("--units").has_value();
    const FormatDescriptor* family = FormatRegistry::ForCode(outCode);
    if (family)
        if (const FormatHooks* hooks = FindFormatHooks(family->Family))
            if (hooks->PrepareWriter)
            {
                try
                {
                    hooks->PrepareWriter(setup);
                }
                catch (const Failure& e)
                {
                    throw Failure(out + ": " + e.what());
                }
            }
    const std::int32_t resolution = setup.InverseResolution;
    if (family && family->CheckWriteRange)
    {
        const std::string problem = family->CheckWriteRange(outCode, stack, setup.UnitConversion, resolution);
        if (!problem.empty())
            throw Failure(out + ": " + problem);
    }

    const ProgressSource source(stack, progress, "writing " + out);
    bool written = false;
    caught.clear();
    try
    {
        written = writer.WriteContainer(source, WidePath(out), setup.UnitConversion, resolution, nullptr);
    }
    catch (const std::exception& e)
    {
        caught = std::string(": ") + e.what();
    }
    progress.Clear();
    if (!written)
    {
        // Only a regular file is taken away: OUT may name a device such as /dev/stdout.
        const bool removed = fs::is_regular_file(out, ec) && fs::remove(out, ec);
        throw Failure(fmt::format("{}: writing {} failed{}; {}", out, FindFormat(outCode)->Name, caught,
                                  removed ? "the partial output was removed" : "no output was left behind"));
    }
    std::string notes;
    for (const std::string& note : setup.Notes)
        notes += "; " + note;
    const std::string unitName = setup.UnitConversion == MUnit::GetIE() ? "mm"
                                 : setup.UnitConversion == static_cast<std::int32_t>(std::lround(MUnit::GetIE() * 25.4))
                                     ? "inch"
                                     : fmt::format("{} internal units", setup.UnitConversion);
    std::printf("%s -> %s: %llu layers as %s (code %d), %d steps per %s%s\n", in.c_str(), out.c_str(),
                static_cast<unsigned long long>(stack.GetNumSlices()), FindFormat(outCode)->Name, outCode, resolution,
                unitName.c_str(), notes.c_str());
    return 0;
}

} // namespace sliceio
