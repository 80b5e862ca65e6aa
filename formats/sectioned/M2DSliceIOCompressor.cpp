#include "M2DSliceIOCompressor.h"

#include <cmath>
#include <cstring>

#include <fmt/format.h>

#include "../../contracts/MFile.h"

namespace Sectioned {

namespace {

constexpr const char* kCreator = "File Created by Zandervolle Metal Stack Processor";
constexpr int kMaxDepth = 6;             // the format nests four deep
constexpr std::int64_t kMaxQuantised = std::int64_t{1} << 60; // differences stay in 64 bits

// What the walk does with a section met inside a parent.
enum class Action
{
    Open,
    OpenFixed,
    String,
    Field,
    Own, // 25, 26, 34: their own models
    Float,
    Polygon,
    Hatch,
    Raw,
    Ignore,
};

Action ActionFor(std::int64_t parent, std::int64_t id)
{
    switch (parent)
    {
    case Id_Header:
        if (id == Id_FileId)
            return Action::String;
        if (id == Id_FileVersion || id == Id_SeekTablePointer || id == Id_ZUnit)
            return Action::Field;
        return id == Id_Model ? Action::OpenFixed : Action::Raw;
    case Id_Model:
        if (id == Id_ModelId || id == Id_ModelTopSlice)
            return Action::Field;
        if (id == Id_ModelName)
            return Action::String;
        return id == Id_BuildStyle || id == Id_ModelPointGroup ? Action::Open : Action::Raw;
    case Id_BuildStyle:
    case Id_ExtraBuildStyle:
        if (id == Id_BuildStyleId && parent == Id_BuildStyle)
            return Action::Field;
        if (id == Id_LaserSpeed || id == Id_LaserPower || id == Id_LaserFocus)
            return Action::Float;
        if (id == Id_PointDistance || id == Id_ExposureTime || id == Id_LaserIndex)
            return Action::Own;
        return parent == Id_BuildStyle ? Action::Raw : Action::Ignore;
    case Id_SeekTable:
        return id == Id_SeekTableEntry ? Action::Open : Action::Ignore;
    case Id_SeekTableEntry:
        return id == Id_LayerPosition || id == Id_LayerZ ? Action::Field : Action::Ignore;
    case Id_Layer:
        return id == Id_PolygonBlock || id == Id_HatchBlock || id == Id_PointBlock ? Action::Open : Action::Ignore;
    case Id_PolygonBlock:
    case Id_HatchBlock:
    case Id_PointBlock:
        if (id == Id_BlockIds || id == Id_BlockModelId)
            return Action::Field;
        if (id == Id_ExtraBuildStyle)
            return Action::Open;
        if ((parent == Id_PolygonBlock && id == Id_PolygonCoordinates) ||
            (parent == Id_PointBlock && id == Id_PointBlockCoordinates))
            return Action::Polygon;
        if (parent == Id_HatchBlock && id == Id_HatchCoordinates)
            return Action::Hatch;
        return parent == Id_PolygonBlock ? Action::Raw : Action::Ignore;
    case Id_ModelPointGroup:
        return id == Id_ModelPointCoordinates ? Action::Polygon : Action::Ignore;
    default:
        return Action::Ignore;
    }
}

int ByteCount(std::uint64_t v)
{
    int n = 0;
    while (v)
    {
        v >>= 8;
        ++n;
    }
    return n;
}

std::string ContainerHead()
{
    std::vector<unsigned char> bytes;
    SectionBuffer out(bytes);
    out.U8(Id_Header);
    out.U8(0x20);
    out.U8(0xC8); // 200 until the head is done
    out.Narrow(Id_FileId, kCompressedFileId);
    out.Int32(3, 1); // format version
    out.Int32(4, 0); // minimum version
    out.Narrow(5, kCreator);
    for (std::int64_t id : {6, 7})
    {
        out.Head(id, 8);
        unsigned char d[8];
        ByteOrder::StoreLE<double>(d, kCoordinateResolution);
        out.Raw(d, 8);
    }
    bytes[2] = static_cast<unsigned char>(bytes.size() - 3); // 114
    return std::string(bytes.begin(), bytes.end());
}

} // namespace

CompressionModels::CompressionModels()
    : IdBytes(4, ModelOrder2(257)), SizeBytes(8, ModelOrder2(257)), FloatBytes(12, ModelOrder2(257))
{
}

ModelOrder2& CompressionModels::ForField(std::int64_t id)
{
    switch (id)
    {
    case Id_ExposureTime:
        return Exposure;
    case Id_PointDistance:
        return PointDistance;
    case Id_LaserIndex:
        return LaserIndex;
    default:
        return Field;
    }
}

bool Quantise(double c, double r, std::int64_t& q)
{
    const double v = c / r;
    if (!(std::fabs(v) < static_cast<double>(kMaxQuantised)))
        return false;
    const double t = std::trunc(v);
    q = static_cast<std::int64_t>(t) + (v - t > 0.5 ? 1 : 0);
    return true;
}

// ------------------------------------------------------------------ compressor

bool M2DSliceIOCompressor::_Fail(const std::string& reason)
{
    if (_reason.empty())
        _reason = reason;
    return false;
}

bool M2DSliceIOCompressor::_BytesWith(ModelOrder2& model, const unsigned char* data, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        if (!model.EncodeSymbol(*_coder, data[i]))
            return _Fail("a model outgrew the coder");
    return true;
}

bool M2DSliceIOCompressor::_Head(std::int64_t id, std::int64_t size, bool fixed)
{
    const auto uid = static_cast<std::uint64_t>(id);
    const int idBytes = ByteCount(uid);
    if (idBytes > 4)
        return _Fail(fmt::format("section id {} has more than four bytes", id));
    const std::uint64_t v = 2 * static_cast<std::uint64_t>(size) + (fixed ? 1 : 0);
    const int sizeBytes = ByteCount(v);
    bool ok = _models.IdLength.EncodeSymbol(*_coder, static_cast<unsigned>(idBytes));
    for (int i = 0; ok && i < idBytes; ++i)
        ok = _models.IdBytes[static_cast<std::size_t>(i)].EncodeSymbol(*_coder, (uid >> (8 * i)) & 0xFF);
    ok = ok && _models.SizeLength.EncodeSymbol(*_coder, static_cast<unsigned>(sizeBytes));
    for (int i = 0; ok && i < sizeBytes; ++i)
        ok = _models.SizeBytes[static_cast<std::size_t>(i)].EncodeSymbol(*_coder, (v >> (8 * i)) & 0xFF);
    return ok || _Fail("a model outgrew the coder");
}

bool M2DSliceIOCompressor::_Integer(IntegerModels& set, std::int64_t value)
{
    const std::uint64_t magnitude =
        value < 0 ? static_cast<std::uint64_t>(0) - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
    const int n = ByteCount(magnitude);
    bool ok = set.Length.EncodeSymbol(*_coder, static_cast<unsigned>(2 * n + (value < 0 ? 1 : 0)));
    for (int i = 0; ok && i < n; ++i)
        ok = set.Bytes[static_cast<std::size_t>(i)].EncodeSymbol(*_coder, (magnitude >> (8 * i)) & 0xFF);
    return ok || _Fail("a model outgrew the coder");
}

bool M2DSliceIOCompressor::_Raw(std::int64_t id, const ByteCursor& body, ModelOrder2& model, unsigned op)
{
    return _Op(op) && _Head(id, static_cast<std::int64_t>(body.Size()), false) &&
           _BytesWith(model, body.Data(), body.Remaining());
}

bool M2DSliceIOCompressor::_Float(std::int64_t id, const ByteCursor& body)
{
    if (body.Size() != 4)
        return _Fail(fmt::format("section {} holds {} bytes, not a float", id, body.Size()));
    if (!_Op(Op_Float) || !_Head(id, 4, false))
        return false;
    const std::size_t set = static_cast<std::size_t>(id - Id_LaserSpeed) * 4;
    for (std::size_t i = 0; i < 4; ++i)
        if (!_models.FloatBytes[set + i].EncodeSymbol(*_coder, body.Data()[i]))
            return _Fail("a model outgrew the coder");
    return true;
}

bool M2DSliceIOCompressor::_Polygon(std::int64_t id, const ByteCursor& body)
{
    if (body.Size() % 8 != 0)
        return _Fail(fmt::format("polygon coordinates of {} bytes, not whole points", body.Size()));
    const std::size_t n = body.Size() / 4;
    _values.resize(n);
    for (std::size_t i = 0; i < n; ++i)
        if (!Quantise(ByteOrder::LoadLE<float>(body.Data() + 4 * i), kCoordinateResolution, _values[i]))
            return _Fail("a polygon coordinate is too large to quantise");
    if (!_Op(Op_Polygon) || !_Head(id, static_cast<std::int64_t>(body.Size()), false))
        return false;
    const std::int64_t* p = _values.data();
    for (std::size_t k = 0; k < n / 2; ++k)
        for (std::size_t c = 0; c < 2; ++c)
        {
            const std::size_t i = 2 * k + c;
            const bool ok = k == 0   ? _Integer(_models.PolygonFirst, p[i])
                            : k == 1 ? _Integer(_models.PolygonSecond, p[i] - p[i - 2])
                                     : _Integer(_models.PolygonRest, (p[i] - p[i - 2]) - (p[i - 2] - p[i - 4]));
            if (!ok)
                return false;
        }
    return true;
}

bool M2DSliceIOCompressor::_Hatch(std::int64_t id, const ByteCursor& body)
{
    // The whole section is read and checked before anything of it is coded.
    if (body.Size() % 16 != 0)
        return _Fail(fmt::format("hatch coordinates of {} bytes, not whole vectors", body.Size()));
    const std::size_t n = body.Size() / 4;
    _values.resize(n);
    for (std::size_t i = 0; i < n; ++i)
        if (!Quantise(ByteOrder::LoadLE<float>(body.Data() + 4 * i), kCoordinateResolution, _values[i]))
            return _Fail("a hatch coordinate is too large to quantise");
    if (!_Op(Op_Hatch) || !_Head(id, static_cast<std::int64_t>(body.Size()), false))
        return false;
    const std::size_t m = n / 4;
    if (m == 0)
        return true;
    // Vector k: a = (v[4k], v[4k+1]), b = (v[4k+2], v[4k+3]).
    const std::int64_t* v = _values.data();
    bool ok = _Integer(_models.HatchFirst, v[0]) && _Integer(_models.HatchFirst, v[1]) &&
              _Integer(_models.HatchSecond, v[2] - v[0]) && _Integer(_models.HatchSecond, v[3] - v[1]);
    std::int64_t P[2] = {0, 0}, Q[2] = {0, 0};
    for (std::size_t k = 1; ok && k < m; ++k)
    {
        const std::int64_t* a = v + 4 * k;
        const std::int64_t* prev = v + 4 * (k - 1);
        const std::int64_t J[2] = {a[0] - prev[2], a[1] - prev[3]};
        const std::int64_t W[2] = {a[2] - prev[0], a[3] - prev[1]};
        if (k % 2 == 1)
        {
            ok = _Integer(_models.HatchRest, J[0] - Q[0]) && _Integer(_models.HatchRest, J[1] - Q[1]) &&
                 _Integer(_models.HatchRest, W[0] - P[0]) && _Integer(_models.HatchRest, W[1] - P[1]);
            Q[0] = J[0];
            Q[1] = J[1];
            if (k == 1)
            {
                P[0] = J[0];
                P[1] = J[1];
            }
        }
        else
        {
            ok = _Integer(_models.HatchRest, J[0] - P[0]) && _Integer(_models.HatchRest, J[1] - P[1]) &&
                 _Integer(_models.HatchRest, W[0] - Q[0]) && _Integer(_models.HatchRest, W[1] - Q[1]);
            P[0] = J[0];
            P[1] = J[1];
        }
    }
    return ok;
}

bool M2DSliceIOCompressor::_Open(std::int64_t id, std::int64_t size, bool fixed, const ByteCursor& body)
{
    return _Op(Op_Open) && _Head(id, size, fixed) && _Children(id, body) && _Op(Op_Close);
}

bool M2DSliceIOCompressor::_Children(std::int64_t parent, ByteCursor body)
{
    while (!body.AtEnd())
    {
        SectionHeader head;
        if (!ReadHead(body, head) || head.Size < 0)
            return _Fail(fmt::format("a section inside section {} is cut short", parent));
        const Action action = ActionFor(parent, head.Id);
        if (action == Action::Ignore)
            continue; // the body is not passed over
        ByteCursor child;
        if (!body.Sub(static_cast<std::size_t>(head.Size), child))
            return _Fail(fmt::format("section {} runs past section {}", head.Id, parent));
        bool ok = true;
        switch (action)
        {
        case Action::Open:
        case Action::OpenFixed:
            ok = _Open(head.Id, head.Size, action == Action::OpenFixed, child);
            break;
        case Action::String:
            ok = _Raw(head.Id, child, _models.String, Op_String);
            break;
        case Action::Field:
        case Action::Raw:
            ok = _Raw(head.Id, child, _models.Field, Op_Bytes);
            break;
        case Action::Own:
            ok = _Raw(head.Id, child, _models.ForField(head.Id), Op_Bytes);
            break;
        case Action::Float:
            ok = _Float(head.Id, child);
            break;
        case Action::Polygon:
            ok = _Polygon(head.Id, child);
            break;
        case Action::Hatch:
            ok = _Hatch(head.Id, child);
            break;
        case Action::Ignore:
            break;
        }
        if (!ok)
            return false;
    }
    return true;
}

bool M2DSliceIOCompressor::Compress()
{
    const std::string head = ContainerHead();
    if (!WriteAll(_out, head.data(), head.size()))
        return _Fail("writing the container head failed");
    _bits = std::make_unique<M2DBitOutStream>(_out);
    _coder = std::make_unique<M2DArithmeticEncoder>(*_bits);
    if (!_in.SEEK(0, 0))
        return _Fail("cannot seek to the start of the plain file");
    const std::int64_t fileSize = _in.GET_SIZE();
    for (;;)
    {
        const std::int64_t at = _in.TELL();
        SectionHeader section;
        if (at >= fileSize || !ReadHead(_in, section) || section.Size < 0)
            return _Fail(fmt::format("no checksum section: the plain file ends at offset {}", at));
        if (section.Id == Id_Checksum)
        {
            unsigned char crc[4];
            if (_in.ReadBytes(crc, 4) != 4)
                return _Fail("the checksum is cut short");
            if (!_Op(Op_Bytes) || !_Head(Id_Checksum, 4, false) || !_BytesWith(_models.Field, crc, 4))
                return false;
            break;
        }
        if (section.Id != Id_Header && section.Id != Id_SeekTable && section.Id != Id_Layer)
            continue; // passed over: its body is read as sections
        ByteCursor body;
        if (!ReadRecord(_in, static_cast<std::size_t>(section.Size), _storage, body))
            return _Fail(fmt::format("section {} at offset {} is larger than the file", section.Id, at));
        if (!_Open(section.Id, section.Size, section.Id != Id_Layer, body))
            return false;
    }
    if (!_Op(Op_End))
        return false;
    _coder->Finish();
    if (!_bits->Flush())
        return _Fail("writing the coded stream failed");
    const unsigned char placeholder[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    if (!WriteAll(_out, placeholder, 4))
        return _Fail("writing the checksum placeholder failed");
    return true;
}

// ------------------------------------------------------------------ decompressor

bool M2DSliceIODecompressor::_Fail(const std::string& reason)
{
    if (_reason.empty())
        _reason = reason;
    return false;
}

bool M2DSliceIODecompressor::_ReadContainerHead()
{
    SectionHeader head;
    if (!_in.SEEK(0, 0) || !ReadHead(_in, head) || head.Id != Id_Header || head.Size < 0)
        return _Fail("not a compressed build file: no section 1 at the start");
    const std::int64_t headEnd = _in.TELL() + head.Size;
    if (!ReadHead(_in, head) || head.Id != Id_FileId || head.Size < 0 || head.Size > 512)
        return _Fail("not a compressed build file: no file id");
    char text[513] = {};
    if (_in.ReadBytes(text, static_cast<std::size_t>(head.Size)) != static_cast<std::size_t>(head.Size) ||
        std::string(text, strnlen(text, static_cast<std::size_t>(head.Size))) != kCompressedFileId)
        return _Fail("not a compressed build file: another file id");
    std::int32_t version = 0, minimum = 0;
    while (_in.TELL() < headEnd)
    {
        if (!ReadHead(_in, head) || head.Size < 0 || _in.TELL() + head.Size > headEnd)
            return _Fail("container head cut short");
        if ((head.Id == 3 || head.Id == 4) && head.Size == 4)
        {
            if (_in.ReadInt32(head.Id == 3 ? &version : &minimum, 1) != 4)
                return _Fail("container head cut short");
        }
        else if ((head.Id == 6 || head.Id == 7) && head.Size == 8)
        {
            if (_in.ReadDouble(head.Id == 6 ? &_polygonResolution : &_hatchResolution, 1) != 8)
                return _Fail("container head cut short");
        }
        else if (head.Id == 3 || head.Id == 4 || head.Id == 6 || head.Id == 7)
            return _Fail(fmt::format("container head section {} of {} bytes", head.Id, head.Size));
        else if (!_in.SEEK(head.Size, 1))
            return _Fail("container head cut short");
    }
    if (!(_polygonResolution > 0) || !(_hatchResolution > 0) || !std::isfinite(_polygonResolution) ||
        !std::isfinite(_hatchResolution))
        return _Fail("the coordinate resolutions are not positive");
    if (version == 0 || version < minimum)
        return _Fail(fmt::format("format version {} with minimum {}", version, minimum));
    return _in.SEEK(headEnd, 0) || _Fail("container head cut short");
}

bool M2DSliceIODecompressor::_BadSymbol() { return _Fail("the coded stream holds no valid symbol here"); }

bool M2DSliceIODecompressor::_Emit(const void* data, std::size_t n)
{
    if (_written + n > _maxOutput)
        return _Fail(fmt::format("the decoded file would exceed {} bytes", _maxOutput));
    _written += n;
    return WriteAll(_out, data, n) || _Fail("writing the plain file failed");
}

bool M2DSliceIODecompressor::_Head(std::int64_t& id, std::int64_t& size, bool& fixed)
{
    unsigned n = 0, byte = 0;
    if (!_Symbol(_models.IdLength, n))
        return false;
    if (n > 4)
        return _Fail(fmt::format("a section id of {} bytes", n));
    std::uint64_t v = 0;
    for (unsigned i = 0; i < n; ++i)
    {
        if (!_Symbol(_models.IdBytes[i], byte) || byte > 255)
            return _Fail("a section id byte out of range");
        v |= static_cast<std::uint64_t>(byte) << (8 * i);
    }
    id = static_cast<std::int64_t>(v);
    if (!_Symbol(_models.SizeLength, n))
        return false;
    if (n > 8)
        return _Fail(fmt::format("a section size of {} bytes", n));
    v = 0;
    for (unsigned i = 0; i < n; ++i)
    {
        if (!_Symbol(_models.SizeBytes[i], byte) || byte > 255)
            return _Fail("a section size byte out of range");
        v |= static_cast<std::uint64_t>(byte) << (8 * i);
    }
    fixed = (v & 1) != 0;
    if ((v >> 1) > kLFMax)
        return _Fail("a section size beyond what an LF number holds");
    size = static_cast<std::int64_t>(v >> 1);
    return true;
}

bool M2DSliceIODecompressor::_WriteHead(std::int64_t id, std::int64_t size, bool fixed)
{
    // Repair gives back the fixed form that raw sections lose.
    if (_repair && (id == Id_GeneratingParameterMapEntry || id == Id_FileHistory || id == Id_GeneratingParameter))
        fixed = true;
    unsigned char bytes[2 * kMaxLFSize];
    const int a = EncodeLF(static_cast<std::uint64_t>(id), bytes, kMaxLFSize, false);
    const int b = EncodeLF(static_cast<std::uint64_t>(size), bytes + a, kMaxLFSize, fixed);
    if (a == 0 || b == 0)
        return _Fail("a section head beyond what LF numbers hold");
    return _Emit(bytes, static_cast<std::size_t>(a + b));
}

bool M2DSliceIODecompressor::_Integer(IntegerModels& set, std::int64_t& value)
{
    unsigned s = 0, byte = 0;
    if (!_Symbol(set.Length, s))
        return false;
    if (s > 17)
        return _Fail("a coordinate of more than eight bytes");
    std::uint64_t magnitude = 0;
    for (unsigned i = 0; i < s / 2; ++i)
    {
        if (!_Symbol(set.Bytes[i], byte) || byte > 255)
            return _Fail("a coordinate byte out of range");
        magnitude |= static_cast<std::uint64_t>(byte) << (8 * i);
    }
    // Wrapping arithmetic: a damaged stream may give any 64-bit pattern.
    value = static_cast<std::int64_t>((s & 1) ? static_cast<std::uint64_t>(0) - magnitude : magnitude);
    return true;
}

namespace {

std::int64_t Add(std::int64_t a, std::int64_t b)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
std::int64_t Sub(std::int64_t a, std::int64_t b)
{
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

} // namespace

bool M2DSliceIODecompressor::_Section(int depth, std::int64_t parent, std::uint64_t budget, bool& ended)
{
    std::uint64_t used = 0;
    auto take = [&](std::uint64_t n) {
        if (n > budget - used)
            return _Fail(fmt::format("a section holds more than section {} declares", parent));
        used += n;
        return true;
    };
    for (;;)
    {
        unsigned op = 0;
        if (!_Symbol(_models.Op, op))
            return false;
        if (op == Op_Close)
            return depth > 0 || _Fail("a section closes that was never opened");
        if (op == Op_End)
        {
            if (depth != 0)
                return _Fail(fmt::format("the stream ends inside section {}", parent));
            ended = true;
            return true;
        }
        if (op == 6 || op == 9)
            return _Fail(fmt::format("operation {} does not exist", op));
        std::int64_t id = 0, size = 0;
        bool fixed = false;
        if (!_Head(id, size, fixed))
            return false;
        const auto usize = static_cast<std::uint64_t>(size);
        const std::uint64_t headBytes = static_cast<std::uint64_t>(LFSize(static_cast<std::uint64_t>(id))) +
                                        (fixed ? kFixedLFSize : static_cast<std::uint64_t>(LFSize(usize)));
        if (usize > _maxOutput || !take(headBytes + usize) || !_WriteHead(id, size, fixed))
            return _Fail(fmt::format("section {} of {} bytes does not fit", id, size));
        switch (op)
        {
        case Op_Open:
        {
            if (depth + 1 >= kMaxDepth)
                return _Fail("sections nest too deep");
            bool inner = false;
            if (!_Section(depth + 1, id, usize, inner))
                return false;
            if (id == Id_Layer && _cancel && *_cancel)
            {
                ended = true;
                return depth == 0 || _Fail("cancelled");
            }
            break;
        }
        case Op_Bytes:
        case Op_String:
        case Op_Float:
        {
            if (op == Op_Float && (size != 4 || id < Id_LaserSpeed || id > Id_LaserFocus))
                return _Fail(fmt::format("a float in section {} of {} bytes", id, size));
            ModelOrder2* model = op == Op_String ? &_models.String : &_models.ForField(id);
            unsigned char chunk[4096];
            for (std::uint64_t done = 0; done < usize;)
            {
                const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(sizeof chunk, usize - done));
                for (std::size_t i = 0; i < n; ++i)
                {
                    unsigned s = 0;
                    if (op == Op_Float)
                        model = &_models.FloatBytes[static_cast<std::size_t>(id - Id_LaserSpeed) * 4 + done + i];
                    if (!_Symbol(*model, s) || s > 255)
                        return _Fail("a byte out of range");
                    chunk[i] = static_cast<unsigned char>(s);
                }
                if (!_Emit(chunk, n))
                    return false;
                done += n;
            }
            break;
        }
        case Op_Polygon:
        case Op_Hatch:
        {
            const bool hatch = op == Op_Hatch;
            const std::uint64_t unit = hatch ? 16 : 8;
            if (usize < unit || usize % unit != 0 || (hatch && id != Id_HatchCoordinates))
                return _Fail(fmt::format("{} coordinates of {} bytes in section {}", hatch ? "hatch" : "polygon", size, id));
            const std::size_t n = static_cast<std::size_t>(usize / 4);
            _values.resize(n); // the size fits the output bound, checked above
            std::int64_t* v = _values.data();
            if (!hatch)
                for (std::size_t i = 0; i < n; ++i)
                {
                    std::int64_t d = 0;
                    const std::size_t k = i / 2;
                    if (!_Integer(k == 0 ? _models.PolygonFirst : k == 1 ? _models.PolygonSecond : _models.PolygonRest, d))
                        return false;
                    v[i] = k == 0 ? d : k == 1 ? Add(v[i - 2], d) : Add(Add(v[i - 2], Sub(v[i - 2], v[i - 4])), d);
                }
            else
            {
                std::int64_t d[4];
                if (!_Integer(_models.HatchFirst, v[0]) || !_Integer(_models.HatchFirst, v[1]) ||
                    !_Integer(_models.HatchSecond, d[0]) || !_Integer(_models.HatchSecond, d[1]))
                    return false;
                v[2] = Add(v[0], d[0]);
                v[3] = Add(v[1], d[1]);
                std::int64_t P[2] = {0, 0}, Q[2] = {0, 0};
                for (std::size_t k = 1; k < n / 4; ++k)
                {
                    for (std::int64_t& x : d)
                        if (!_Integer(_models.HatchRest, x))
                            return false;
                    std::int64_t J[2], W[2];
                    const bool odd = k % 2 == 1;
                    for (int c = 0; c < 2; ++c)
                    {
                        J[c] = Add(d[c], odd ? Q[c] : P[c]);
                        W[c] = Add(d[2 + c], odd ? P[c] : Q[c]);
                    }
                    std::int64_t* a = v + 4 * k;
                    const std::int64_t* prev = a - 4;
                    a[0] = Add(J[0], prev[2]);
                    a[1] = Add(J[1], prev[3]);
                    a[2] = Add(W[0], prev[0]);
                    a[3] = Add(W[1], prev[1]);
                    if (odd)
                    {
                        Q[0] = J[0];
                        Q[1] = J[1];
                        if (k == 1)
                        {
                            P[0] = J[0];
                            P[1] = J[1];
                        }
                    }
                    else
                    {
                        P[0] = J[0];
                        P[1] = J[1];
                    }
                }
            }
            const double r = hatch ? _hatchResolution : _polygonResolution;
            _buffer.resize(4 * n);
            for (std::size_t i = 0; i < n; ++i)
                ByteOrder::StoreLE<float>(_buffer.data() + 4 * i, static_cast<float>(static_cast<double>(v[i]) * r));
            if (!_Emit(_buffer.data(), _buffer.size()))
                return false;
            break;
        }
        default:
            return _Fail(fmt::format("operation {} does not exist", op));
        }
    }
}

bool M2DSliceIODecompressor::Decompress()
{
    const std::int64_t size = _in.GET_SIZE();
    if (_maxOutput == 0)
        _maxOutput = (std::uint64_t{1} << 20) + 4096 * static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0));
    if (!_ReadContainerHead())
        return false;
    // The coded stream is followed by the checksum; repair reads zero bits in its place.
    _bits = std::make_unique<M2DBitInStream>(_in, _repair ? size - 4 : size);
    _coder = std::make_unique<M2DArithmeticDecoder>(*_bits);
    bool ended = false;
    while (!ended)
        if (!_Section(0, 0, UINT64_MAX, ended))
            return false;
    return true;
}

} // namespace Sectioned
