#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "../../contracts/M2DSliceStack.h"
#include "../../contracts/MUnit.h"
#include "../../framework/FormatDescriptor.h"
#include "../../framework/M2DSliceContainerIO.h"
#include "../../framework/M2DSliceIOFactory.h"
#include "FormatHooks.h"
#include "Parts.h"
#include "Settings.h"
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
    ProgressSource(const ISource2DSlices& source, ProgressLine& line, std::string label, bool shows)
        : _source(source), _line(line), _label(std::move(label)), _shows(shows)
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
    void _Tick(std::uint64_t i) const
    {
        if (_shows)
            _line.Fraction(_label, i + 1, _source.GetNumSlices());
    }

    const ISource2DSlices& _source;
    ProgressLine& _line;
    std::string _label;
    bool _shows;
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

// "A:B", "A:" or ":B" (layers numbered from 0, both ends included), or one layer "A".
void ParseLayerRange(const std::string& text, SplitOptions& options)
{
    const std::size_t colon = text.find(':');
    const auto number = [&text](const std::string& part, std::uint64_t fallback) {
        if (part.empty())
            return fallback;
        std::uint64_t value = 0;
        const auto result = std::from_chars(part.data(), part.data() + part.size(), value);
        if (result.ec != std::errc() || result.ptr != part.data() + part.size())
            throw UsageError("--layers expects A:B, A: or :B with layer numbers from 0, not '" + text + "'");
        return value;
    };
    if (colon == std::string::npos)
        options.FirstLayer = options.LastLayer = number(text, 0);
    else
    {
        options.FirstLayer = number(text.substr(0, colon), 0);
        options.LastLayer = number(text.substr(colon + 1), UINT64_MAX);
    }
    if (text.empty() || text == ":" || options.FirstLayer > options.LastLayer)
        throw UsageError("--layers expects A:B, A: or :B with A <= B, not '" + text + "'");
}

// Reads the whole file into the stack, as the whole-file driver does, but with the scale of
// the header replaced by inputUnits (millimetres per step) when that is given. False with
// the reason in caught (or the reader's own) when the file cannot be read.
// Opens the input and reads its header, with the scale the user gave in place of the file's.
bool OpenInput(I2DSliceIO& io, const std::string& path, ITarget2DSlices* target, double inputUnits)
{
    if (!io.OpenFile(WidePath(path), I2DSliceIO::Read) || !io.ReadHeader(target))
    {
        io.CloseFile();
        return false;
    }
    if (inputUnits > 0)
    {
        M2DSliceContainerIOProperties properties;
        io.GetIoProperties(properties);
        properties.UnitConversionFactor = MUnit::GetIE();
        properties.InverseResolution = static_cast<std::int32_t>(std::lround(1.0 / inputUnits));
        io.SetIoProperties(properties);
    }
    return true;
}

// The layer heights a scan gives, for a format whose read leaves heights unset.
std::vector<std::int32_t> ScanHeights(short code, const std::string& path, double inputUnits)
{
    std::vector<std::int32_t> heights;
    const std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(code);
    if (!io || !OpenInput(*io, path, nullptr, inputUnits))
        return heights;
    M2DSliceContainerScanInfo info;
    while (io->ScanLayer(info, nullptr, false))
        heights.push_back(info.Z);
    io->CloseFile();
    return heights;
}

// Reads the whole input into the stack. With heights given, the i-th layer takes the i-th
// height (a layer past their end keeps what the read gave it).
bool ReadInput(I2DSliceIO& io, const std::string& path, M2DSliceStack& stack, double inputUnits,
               const std::vector<std::int32_t>& heights, ProgressLine& progress, std::string& caught)
{
    ReadProgress pulse(progress, "reading " + path);
    try
    {
        if (!OpenInput(io, path, &stack, inputUnits))
            return false;
        stack.StartAddingSlices();
        M2DSlice slice;
        for (std::size_t i = 0; io.ReadLayer(slice, &stack, true); ++i)
        {
            if (i < heights.size())
                slice.SetZ(heights[i]);
            stack.AddSlice(slice, true);
            pulse.OnPulse();
        }
        const bool damaged = !io.GetFailureReason().empty();
        const bool footer = !damaged && io.ReadFooter(&stack);
        const bool closed = io.CloseFile();
        return footer && closed;
    }
    catch (const std::exception& e)
    {
        caught = e.what();
        io.CloseFile();
        return false;
    }
}

std::string UnitName(std::int32_t unitConversion)
{
    if (unitConversion == MUnit::GetIE())
        return "mm";
    if (unitConversion == static_cast<std::int32_t>(std::lround(MUnit::GetIE() * 25.4)))
        return "inch";
    return fmt::format("unit of {} internal steps", unitConversion);
}

// What the source holds, for telling what the output keeps of it.
struct Content
{
    std::uint64_t Contours = 0, OpenContours = 0, VectorBlocks = 0, PointBlocks = 0;
};

Content Measure(const std::vector<std::unique_ptr<PartSource>>& parts)
{
    Content c;
    for (const auto& part : parts)
        for (const auto& slice : part->Slices())
        {
            for (const M2DSliceContour& contour : *slice->GetSliceBorder())
            {
                ++c.Contours;
                c.OpenContours += contour.GetIsClosed() ? 0 : 1;
            }
            c.VectorBlocks += slice->GetVectors()->GetNumVectorBlocks();
            c.PointBlocks += slice->GetPoints()->GetNumPointBlocks();
        }
    return c;
}

} // namespace

int RunConvert(const ConvertOptions& options)
{
    const nlohmann::json settings = LoadSettings(options.Settings);
    if (options.ShowSettings)
    {
        std::printf("%s\n", EffectiveSettings(settings).dump(2).c_str());
        return 0;
    }
    const std::string& in = options.In;
    const std::string& out = options.Out;
    const std::string units = options.Units.value_or("mm");
    const std::int32_t unitConversion =
        units == "mm" ? MUnit::GetIE() : static_cast<std::int32_t>(std::lround(MUnit::GetIE() * 25.4));
    if (options.NoContours && options.ContoursAsVectors)
        throw UsageError("--no-contours and --contours-as-vectors exclude each other");
    SplitOptions split;
    if (options.Layers)
        ParseLayerRange(*options.Layers, split);
    split.DropEmptyLayers = options.DropEmptyLayers;
    split.DropContours = options.NoContours;
    if (options.InputUnits)
    {
        const double inverse = *options.InputUnits > 0 ? 1.0 / *options.InputUnits : 0.0;
        if (!(inverse >= 1 && inverse <= INT32_MAX) || std::fabs(inverse - std::round(inverse)) > 1e-6 * inverse)
            throw UsageError(fmt::format("--input-units expects millimetres per step of the form 1/N mm (such as "
                                         "0.001), not {}",
                                         *options.InputUnits));
    }

    CheckInputFile(in);
    const InputFormat inFormat = ResolveInputFormat(in, options.Type);
    CheckOutputFile(out);
    const short outCode = ResolveOutputFormat(out, options.To);
    std::error_code ec;
    if (fs::equivalent(in, out, ec))
        throw Failure(out + ": is the input file; write to another file");

    // What the input declares: parts, layer count, a header scale the reader misreads.
    const FileReport declared = DescribeWithHooks(in, inFormat.Code);
    for (const std::string& warning : declared.Warnings)
        if (!(options.InputUnits && declared.MeantUnits > 0 && warning.find("--input-units") != std::string::npos))
            std::fprintf(stderr, "sliceio: warning: %s: %s\n", in.c_str(), warning.c_str());

    ProgressLine progress;
    M2DSliceStack stack;
    const std::shared_ptr<I2DSliceIO> reader = M2DSliceIOFactory::GetSliceIO(inFormat.Code);
    reader->SetFileType(static_cast<unsigned short>(inFormat.Code));
    // Keep the blocks as the file has them instead of joining neighbours of equal label.
    I2DSliceIO::ReadOptions readOptions;
    readOptions.VectorBlocks.MergeBlocks = false;
    reader->SetReadOptions(readOptions);
    std::string caught;
    // A format whose read gives no heights takes them from a scan of the file.
    const FormatDescriptor* inFamily = FormatRegistry::ForCode(inFormat.Code);
    const std::vector<std::int32_t> heights =
        inFamily && (inFamily->Losses & FormatLoss_Heights)
            ? ScanHeights(static_cast<short>(inFormat.Code), in, options.InputUnits.value_or(0))
            : std::vector<std::int32_t>{};
    const bool read = ReadInput(*reader, in, stack, options.InputUnits.value_or(0), heights, progress, caught);
    progress.Clear();
    if (!read)
        throw Failure(DescribeReadFailure(inFormat, in, reader.get(), caught) + "; nothing was written");
    if (declared.DeclaredLayers >= 0 && static_cast<std::uint64_t>(declared.DeclaredLayers) < stack.GetNumSlices())
        std::fprintf(stderr, "sliceio: warning: %s: the file declares %lld layers but holds %llu; all are converted\n",
                     in.c_str(), static_cast<long long>(declared.DeclaredLayers),
                     static_cast<unsigned long long>(stack.GetNumSlices()));
    if (declared.DeclaredLayers >= 0 && static_cast<std::uint64_t>(declared.DeclaredLayers) > stack.GetNumSlices())
        throw Failure(fmt::format("{}: the file declares {} layers but {} could be read; it may be truncated or "
                                  "damaged ('sliceio check' tells more); nothing was written",
                                  in, declared.DeclaredLayers, stack.GetNumSlices()));
    if (stack.GetNumSlices() == 0)
        throw Failure(in + ": has no layers; nothing was written");

    // The output family decides what must be turned into what.
    const FormatDescriptor* family = FormatRegistry::ForCode(outCode);
    const unsigned losses = family ? family->Losses : FormatLoss_None;
    split.RepeatLeads = declared.RepeatLeads;
    split.ContoursAsVectors = options.ContoursAsVectors || ((losses & FormatLoss_Contours) && !options.NoContours);
    SplitCounts counts;
    std::vector<std::unique_ptr<PartSource>> parts = SplitIntoParts(stack, declared.Parts, split, counts);
    if (counts.Layers == 0)
        throw Failure(fmt::format("{}: no layer is left of the {} the file holds ({}); nothing was written", in,
                                  stack.GetNumSlices(), options.Layers ? "--layers " + *options.Layers : "all empty"));
    std::vector<PartSource*> partPointers;
    for (const auto& part : parts)
        partPointers.push_back(part.get());
    ApplyGeneralSettings(settings, partPointers);
    const Content content = Measure(parts);

    M2DSliceContainerIO writer(static_cast<unsigned short>(outCode));
    WriterSetup setup;
    setup.Code = outCode;
    setup.Writer = writer.GetSliceIO().get();
    for (const auto& part : parts)
    {
        setup.Sources.push_back(part.get());
        setup.SourceProperties.push_back(&part->Properties());
    }
    setup.LayerThickness = stack.GetSliceThickness();
    setup.UnitConversion = unitConversion;
    setup.InverseResolution = options.Resolution ? *options.Resolution : DefaultResolution(reader, unitConversion);
    setup.ScaleGiven = options.Resolution.has_value() || options.Units.has_value();
    // Empty layers are written, so that the header's count, the layers and a reread agree; a
    // format that cannot hold them may turn this off in its hooks.
    setup.Writer->GetWriteOptions().WriteEmptyLayers = true;
    if (family)
    {
        setup.Settings = SectionOf(settings, family->Family);
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
    }
    // A hook may hand over a writer of its own (one that no code reaches); it writes empty
    // layers as the factory's writer was set to.
    std::shared_ptr<I2DSliceIO> io = setup.Replacement ? setup.Replacement : writer.GetSliceIO();
    if (setup.Replacement)
        io->GetWriteOptions().WriteEmptyLayers = setup.Writer->GetWriteOptions().WriteEmptyLayers;
    M2DSliceContainerIO driver(io);
    const std::int32_t resolution = setup.InverseResolution;

    M2DSliceSourceVector joined;
    joined.GetOptions().JoinByHeight = true;
    joined.SetVector(setup.Sources);
    if (family && family->CheckWriteRange)
    {
        const std::string problem = family->CheckWriteRange(outCode, joined, setup.UnitConversion, resolution);
        if (!problem.empty())
            throw Failure(out + ": " + problem);
    }

    std::vector<std::unique_ptr<ProgressSource>> shown;
    std::vector<const ISource2DSlices*> sources;
    for (const ISource2DSlices* source : setup.Sources)
    {
        // One bar for the whole write: the first source's layers stand for the others'.
        shown.push_back(std::make_unique<ProgressSource>(*source, progress, "writing " + out, shown.empty()));
        sources.push_back(shown.back().get());
    }
    bool written = false;
    caught.clear();
    try
    {
        written = driver.WriteContainers(sources, WidePath(out), setup.UnitConversion, resolution, nullptr);
    }
    catch (const std::exception& e)
    {
        caught = std::string(": ") + e.what();
    }
    progress.Clear();
    if (!written)
    {
        if (caught.empty() && !io->GetFailureReason().empty())
            caught = ": " + io->GetFailureReason();
        // Only a regular file is taken away: OUT may name a device such as /dev/stdout.
        const bool removed = fs::is_regular_file(out, ec) && fs::remove(out, ec);
        throw Failure(fmt::format("{}: writing {} failed{}; {}", out, FindFormat(outCode)->Name, caught,
                                  removed ? "the partial output was removed" : "no output was left behind"));
    }

    // What was carried and what was not.
    std::vector<std::string> notes;
    notes.push_back(fmt::format("{} part{}", parts.size(), parts.size() == 1 ? "" : "s"));
    if (counts.EmptyLayersDropped)
        notes.push_back(fmt::format("{} empty layers dropped", counts.EmptyLayersDropped));
    if (counts.ContoursTurnedToVectors)
        notes.push_back(fmt::format("{} contours written as vectors", counts.ContoursTurnedToVectors));
    if (counts.ContoursDropped)
        notes.push_back(fmt::format("{} contours dropped", counts.ContoursDropped));
    if ((losses & FormatLoss_Contours) && content.Contours)
        notes.push_back(fmt::format("{} contours not written", content.Contours));
    if ((losses & FormatLoss_OpenContours) && content.OpenContours)
        notes.push_back(fmt::format("{} open contours closed or written as vectors", content.OpenContours));
    if ((losses & FormatLoss_Hatches) && content.VectorBlocks)
        notes.push_back(fmt::format("{} vector blocks not written", content.VectorBlocks));
    if ((losses & FormatLoss_Points) && content.PointBlocks)
        notes.push_back(fmt::format("{} point blocks not written", content.PointBlocks));
    if ((losses & FormatLoss_Parts) && parts.size() > 1)
        notes.push_back("parts merged");
    const FormatDescriptor* inputFamily = FormatRegistry::ForCode(inFormat.Code);
    const unsigned inputLosses = inputFamily ? inputFamily->Losses : FormatLoss_None;
    if ((losses & FormatLoss_Labels) && !(inputLosses & FormatLoss_Labels) &&
        (content.Contours || content.VectorBlocks || content.PointBlocks))
        notes.push_back("vector types and build parameters not kept");
    if (options.InputUnits)
        notes.push_back(fmt::format("input read at {} mm per step", *options.InputUnits));
    for (const std::string& note : setup.Notes)
        notes.push_back(note);
    std::string tail;
    for (const std::string& note : notes)
        tail += "; " + note;
    std::printf("%s -> %s: %llu layers as %s (code %d), %d steps per %s%s\n", in.c_str(), out.c_str(),
                static_cast<unsigned long long>(counts.Layers), FindFormat(outCode)->Name, outCode, resolution,
                UnitName(setup.UnitConversion).c_str(), tail.c_str());
    return 0;
}

} // namespace sliceio
