// WZA job files: opening, the header both ways, the footer with its digest.
#include "M2DSliceIO_wza.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <fmt/format.h>
#include <openssl/evp.h>

#include "../../contracts/ByteOrder.h"
#include "../../contracts/StringConversion.h"

namespace {

const char kMagic[] = "SiAMODeL";

// Flags of the header: which sections follow.
constexpr std::uint8_t kFlagMachine = 0x20;
constexpr std::uint8_t kFlagMeta = 0x10;
constexpr std::uint8_t kFlagPreforms = 0x08;
constexpr std::uint8_t kFlagMonitoring = 0x04;

// Value types of a setting item.
constexpr std::uint8_t kTypeBool = 1;
constexpr std::uint8_t kTypeUnsigned = 2;
constexpr std::uint8_t kTypeDouble = 4;
constexpr std::uint8_t kTypeText = 5;

std::string Utf8Path(const std::wstring& path) { return StringConversion::NativeToUtf8(path); }

// MD5 of bytes [0, length) of a file, or of all of it when length is negative; empty when it
// cannot be read.
std::string HexMD5OfFile(const std::wstring& path, std::int64_t length)
{
    const int fd = ::open(Utf8Path(path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    bool ok = ctx && EVP_DigestInit_ex(ctx, EVP_md5(), nullptr) == 1;
    std::vector<unsigned char> buffer(std::size_t{1} << 18);
    std::int64_t left = length;
    while (ok && (length < 0 || left > 0))
    {
        std::size_t want = buffer.size();
        if (length >= 0 && static_cast<std::uint64_t>(left) < want)
            want = static_cast<std::size_t>(left);
        const ssize_t got = ::read(fd, buffer.data(), want);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
        {
            ok = got == 0 && length < 0;
            break;
        }
        ok = EVP_DigestUpdate(ctx, buffer.data(), static_cast<std::size_t>(got)) == 1;
        left -= got;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digestSize = 0;
    ok = ok && EVP_DigestFinal_ex(ctx, digest, &digestSize) == 1;
    EVP_MD_CTX_free(ctx);
    ::close(fd);
    if (!ok)
        return {};
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < digestSize; ++i)
    {
        text += kHex[digest[i] >> 4];
        text += kHex[digest[i] & 15];
    }
    return text;
}

} // namespace

const std::wstring M2DSliceIO_wza::WZA_SUBPART_INDEX = L"WzaSubpartIndex";

M2DSliceIO_wza::M2DSliceIO_wza() = default;

M2DSliceIO_wza::M2DSliceIO_wza(unsigned version, const std::wstring& jobName, const std::wstring& material,
                               const std::wstring& computerId, const std::wstring& spVersion,
                               std::int32_t sliceHeight, const std::wstring& headerTail,
                               const std::wstring& machineType, unsigned machineTypeId,
                               std::vector<SettingVariant> settings, std::list<WZAPartStructure> parts,
                               std::shared_ptr<I2DSliceOperatorSort> sortOperator,
                               ScanKeyFunctionType scanKeyFunction,
                               std::unique_ptr<WZADataStructures::MeltPoolMonitoringSettings> meltPoolMonitoring,
                               std::unique_ptr<WZADataStructures::PreformsSettings> preforms)
    : _version(version), _jobName(StringConversion::NativeToUtf8(jobName)),
      _material(StringConversion::NativeToUtf8(material)), _computerId(StringConversion::NativeToUtf8(computerId)),
      _spVersion(StringConversion::NativeToUtf8(spVersion)), _sliceHeight(sliceHeight),
      _headerTail(StringConversion::NativeToUtf8(headerTail)),
      _machineType(StringConversion::NativeToUtf8(machineType)), _machineTypeId(machineTypeId),
      _settings(std::move(settings)), _parts(std::move(parts)), _sortOperator(std::move(sortOperator)),
      _scanKeyFunction(std::move(scanKeyFunction)), _meltPoolMonitoring(std::move(meltPoolMonitoring)),
      _preforms(std::move(preforms))
{
    settings.clear();
    parts.clear();
    sortOperator.reset();
    scanKeyFunction = nullptr;
}

M2DSliceIO_wza::~M2DSliceIO_wza()
{
    if (_stream)
    {
        _FlushOut();
        std::fclose(_stream);
    }
}

void M2DSliceIO_wza::SetJobName(const std::wstring& name) { _jobName = StringConversion::NativeToUtf8(name); }

void M2DSliceIO_wza::SetMetaTexts(const std::wstring& material, const std::wstring& machineType)
{
    _material = StringConversion::NativeToUtf8(material);
    _machineType = StringConversion::NativeToUtf8(machineType);
}

// ---------------------------------------------------------------- stream

std::int64_t M2DSliceIO_wza::_TellFilePos()
{
    if (!_stream)
        return -1;
    if (_writing)
        return _outStart + static_cast<std::int64_t>(_out.size());
    return static_cast<std::int64_t>(ftello(_stream));
}

bool M2DSliceIO_wza::_SeekFilePos(std::int64_t position)
{
    if (!_stream)
        return false;
    _FlushOut();
    const bool ok = fseeko(_stream, static_cast<off_t>(position), SEEK_SET) == 0;
    if (_writing)
        _outStart = ok ? position : static_cast<std::int64_t>(ftello(_stream));
    return ok;
}

void M2DSliceIO_wza::_FlushOut()
{
    if (_stream && !_out.empty())
        std::fwrite(_out.data(), 1, _out.size(), _stream);
    _outStart += static_cast<std::int64_t>(_out.size());
    _out.clear();
}

bool M2DSliceIO_wza::_OpenFile(const std::wstring& path, MOpenMode mode)
{
    _filePath = path;
    if (_stream)
    {
        _FlushOut();
        std::fclose(_stream);
    }
    _out.clear();
    _outStart = 0;
    _writing = mode != Read;
    _stream = std::fopen(Utf8Path(path).c_str(), mode == Read ? "rb" : "wb");
    _fileSize = 0;
    if (_stream)
    {
        // Reading takes many small fields. Writing has a buffer of the class's own for the
        // layers, which reaches the stream in large pieces that pass its buffer by; the header's
        // sections write their items to the stream one by one, and its buffer gathers them.
        std::setvbuf(_stream, nullptr, _IOFBF, _writing ? std::size_t{1} << 16 : std::size_t{1} << 18);
        struct stat info;
        if (mode == Read && fstat(fileno(_stream), &info) == 0)
            _fileSize = static_cast<std::int64_t>(info.st_size);
    }
    // True even without a stream: the first read or write then fails.
    return true;
}

bool M2DSliceIO_wza::_CloseFile()
{
    if (!_stream)
        return _Fail("the file is not open");
    _FlushOut();
    const bool closed = std::fclose(_stream) == 0;
    _stream = nullptr;
    return closed || _Fail("the file could not be closed");
}

void M2DSliceIO_wza::_WriteText(const std::string& text) { _Write(text.c_str(), text.size() + 1); }

// Writes a u32 at a remembered position and returns to back; false when a seek fails.
bool M2DSliceIO_wza::_Patch32(std::int64_t at, std::uint32_t value, std::int64_t back)
{
    if (_writing && at >= _outStart && at + 4 <= _outStart + static_cast<std::int64_t>(_out.size()) &&
        back == _TellFilePos())
    {
        ByteOrder::StoreLE<std::uint32_t>(_out.data() + (at - _outStart), value);
        return true;
    }
    bool ok = _SeekFilePos(at);
    _WriteLE<std::uint32_t>(value);
    ok = _SeekFilePos(back) && ok;
    return ok;
}

// ---------------------------------------------------------------- conversions

double M2DSliceIO_wza::_DateToDouble(std::int64_t t) const
{
    std::tm base{};
    base.tm_year = 100; // 2000
    base.tm_mon = 0;
    base.tm_mday = 1;
    base.tm_isdst = 0;
    const std::time_t origin = std::mktime(&base);
    return std::difftime(static_cast<std::time_t>(t), origin) / 86400.0;
}

float M2DSliceIO_wza::_ConvertInternToSingle(int v) const
{
    return static_cast<float>(v) / static_cast<float>(ZanSDK::Common::MInternalUnits::Get());
}

int M2DSliceIO_wza::_ConvertSingleToIntern(float f) const
{
    const float product = f * static_cast<float>(ZanSDK::Common::MInternalUnits::Get());
    // Truncation toward zero; a value out of range (or NaN) gives the machine's "integer
    // indefinite", 0x80000000, instead of undefined behaviour.
    if (!(product > -2147483904.0f && product < 2147483648.0f))
        return INT32_MIN;
    return static_cast<int>(product);
}

// ---------------------------------------------------------------- header, writing

void M2DSliceIO_wza::_WriteHeaderMetaDataItem(std::FILE* stream, const std::string& description,
                                              const std::string& value, std::uint32_t& count)
{
    std::fwrite(description.c_str(), 1, description.size() + 1, stream);
    std::fputc(kTypeText, stream);
    std::fwrite(value.c_str(), 1, value.size() + 1, stream);
    ++count;
}

namespace {

void PutSettingHead(std::FILE* stream, unsigned id, std::uint8_t type)
{
    unsigned char bytes[5];
    ByteOrder::StoreLE<std::uint32_t>(bytes, id);
    bytes[4] = type;
    std::fwrite(bytes, 1, sizeof bytes, stream);
}

} // namespace

void M2DSliceIO_wza::_WriteIntegerBasedSettings(std::FILE* stream, unsigned id, unsigned value)
{
    PutSettingHead(stream, id, kTypeUnsigned);
    unsigned char bytes[4];
    ByteOrder::StoreLE<std::uint32_t>(bytes, value);
    std::fwrite(bytes, 1, sizeof bytes, stream);
}

void M2DSliceIO_wza::_WriteDoubleBasedSettings(std::FILE* stream, unsigned id, double value)
{
    PutSettingHead(stream, id, kTypeDouble);
    unsigned char bytes[8];
    ByteOrder::StoreLE<double>(bytes, value);
    std::fwrite(bytes, 1, sizeof bytes, stream);
}

void M2DSliceIO_wza::_WriteBoolBasedSettings(std::FILE* stream, unsigned id, bool value)
{
    PutSettingHead(stream, id, kTypeBool);
    std::fputc(value ? 1 : 0, stream);
}

void M2DSliceIO_wza::_WriteStringBasedSettings(std::FILE* stream, unsigned id, const std::string& value)
{
    PutSettingHead(stream, id, kTypeText);
    std::fwrite(value.c_str(), 1, value.size() + 1, stream);
}

namespace {

// A section: marker, item count and length, both patched once the items are written. The
// length counts the bytes after its own field through the end of the last item.
class SectionWriter
{
public:
    SectionWriter(std::FILE* stream, const char* marker) : _stream(stream)
    {
        std::fwrite(marker, 1, std::strlen(marker), stream);
        _countAt = ftello(stream);
        Zero();
        _lengthAt = ftello(stream);
        Zero();
        _itemsAt = ftello(stream);
    }
    bool Finish(std::uint32_t count)
    {
        const std::int64_t end = ftello(_stream);
        bool ok = end >= 0 && _countAt >= 0 && _lengthAt >= 0 && _itemsAt >= 0;
        ok = Put(_countAt, count, end) && ok;
        ok = Put(_lengthAt, static_cast<std::uint32_t>(end - _itemsAt), end) && ok;
        return ok;
    }

private:
    void Zero()
    {
        const unsigned char zero[4] = {};
        std::fwrite(zero, 1, 4, _stream);
    }
    bool Put(std::int64_t at, std::uint32_t value, std::int64_t back)
    {
        if (at < 0 || back < 0)
            return false;
        bool ok = fseeko(_stream, static_cast<off_t>(at), SEEK_SET) == 0;
        unsigned char bytes[4];
        ByteOrder::StoreLE<std::uint32_t>(bytes, value);
        std::fwrite(bytes, 1, 4, _stream);
        return fseeko(_stream, static_cast<off_t>(back), SEEK_SET) == 0 && ok;
    }
    std::FILE* _stream;
    std::int64_t _countAt = -1;
    std::int64_t _lengthAt = -1;
    std::int64_t _itemsAt = -1;
};

} // namespace

void M2DSliceIO_wza::_WriteHeaderMachineSettings()
{
    SectionWriter section(_stream, "MS");
    std::FILE* stream = _stream;
    const WZADataStructures::SettingsVisitor visitor(
        [stream](unsigned id, unsigned v) { _WriteIntegerBasedSettings(stream, id, v); },
        [stream](unsigned id, double v) { _WriteDoubleBasedSettings(stream, id, v); },
        [stream](unsigned id, bool v) { _WriteBoolBasedSettings(stream, id, v); },
        [stream](unsigned id, const std::string& v) { _WriteStringBasedSettings(stream, id, v); });
    for (const SettingVariant& setting : _settings)
        boost::apply_visitor(visitor, setting);
    section.Finish(static_cast<std::uint32_t>(_settings.size()));
}

void M2DSliceIO_wza::_WriteHeaderMetaData()
{
    SectionWriter section(_stream, "META");
    std::uint32_t count = 0;
    _WriteHeaderMetaDataItem(_stream, "Computer ID", _computerId, count);
    _WriteHeaderMetaDataItem(_stream, "SP Version", _spVersion, count);
    _WriteHeaderMetaDataItem(_stream, "Material", _material, count);
    unsigned counter = 0;
    for (const WZAPartStructure& part : _parts)
        if (!part.IsSubpart)
            _WriteHeaderMetaDataItem(_stream, "Build Strategy Part " + std::to_string(counter++),
                                     StringConversion::NativeToUtf8(part.BuildStrategy), count);
    _WriteHeaderMetaDataItem(_stream, "Machine Type", _machineType, count);
    section.Finish(count);
}

void M2DSliceIO_wza::_WritePerformsSettings()
{
    SectionWriter section(_stream, "PFS");
    const auto& entries = _preforms->PreformEntries;
    _WriteDoubleBasedSettings(_stream, 10, _preforms->PreformValue);
    _WriteIntegerBasedSettings(_stream, 20, static_cast<unsigned>(entries.size()));
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        const unsigned b = 1000 + 1000 * static_cast<unsigned>(i);
        if (entries[i].Marker == 0)
            _WriteStringBasedSettings(_stream, b, "RP-d4");
        _WriteDoubleBasedSettings(_stream, b + 20, entries[i].First);
        _WriteDoubleBasedSettings(_stream, b + 30, entries[i].Second);
        _WriteDoubleBasedSettings(_stream, b + 40, entries[i].Third);
    }
    // Four items per entry whether or not its text item was written.
    section.Finish(static_cast<std::uint32_t>(4 * entries.size() + 2));
}

void M2DSliceIO_wza::_WriteMeltPoolMonitoringSettings()
{
    SectionWriter section(_stream, "MONS");
    const auto& texts = _meltPoolMonitoring->Texts;
    _WriteIntegerBasedSettings(_stream, 0, static_cast<unsigned>(texts.size()));
    for (std::size_t i = 0; i < texts.size(); ++i)
        _WriteStringBasedSettings(_stream, 1 + 1000 * static_cast<unsigned>(i),
                                  StringConversion::NativeToUtf8(texts[i]));
    section.Finish(static_cast<std::uint32_t>(texts.size() + 1));
}

bool M2DSliceIO_wza::_WriteHeader(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    if (!_stream)
        return _Fail("the file could not be opened for writing");
    const double creationDate = _DateToDouble(static_cast<std::int64_t>(std::time(nullptr)));
    _Write(kMagic, 8);
    _WriteLE<std::uint32_t>(_version);

    const std::int64_t headerLengthAt = _TellFilePos();
    _WriteLE<std::uint32_t>(0);
    _WriteText(_jobName);
    _WriteLE<double>(creationDate);
    _WriteLE<std::uint32_t>(_machineTypeId);
    std::uint8_t flags = kFlagMeta;
    if (!_settings.empty())
        flags |= kFlagMachine;
    if (_preforms && _preforms->Enabled)
        flags |= kFlagPreforms;
    if (_meltPoolMonitoring && _meltPoolMonitoring->Enabled)
        flags |= kFlagMonitoring;
    _WriteLE<std::uint8_t>(flags);
    // The sections write to the stream itself.
    _FlushOut();
    if (flags & kFlagMachine)
        _WriteHeaderMachineSettings();
    _WriteHeaderMetaData();
    if (flags & kFlagPreforms)
        _WritePerformsSettings();
    if (flags & kFlagMonitoring)
        _WriteMeltPoolMonitoringSettings();
    _outStart = static_cast<std::int64_t>(ftello(_stream));

    _WriteLE<float>(_ConvertInternToSingle(_sliceHeight));
    _sliceCountPosition = _TellFilePos();
    _WriteLE<std::uint32_t>(0);
    std::uint32_t partCount = 0;
    for (const WZAPartStructure& part : _parts)
        partCount += part.IsSubpart ? 0 : 1;
    _WriteLE<std::uint32_t>(partCount);
    for (const WZAPartStructure& part : _parts)
        if (!part.IsSubpart)
        {
            _WriteLE<std::uint32_t>(static_cast<std::uint32_t>(part.Id));
            _WriteText(StringConversion::NativeToUtf8(part.Name));
        }
    _WriteText(_headerTail);

    const std::int64_t end = _TellFilePos();
    if (headerLengthAt < 0 || end < 0 || _sliceCountPosition < 0)
        return _Fail("the file position is not known");
    if (!_Patch32(headerLengthAt, static_cast<std::uint32_t>(end - headerLengthAt - 4), end))
        return _Fail("the header length could not be patched");

    _dataLengthPosition = _TellFilePos();
    if (_dataLengthPosition < 0)
        return _Fail("the file position is not known");
    _WriteLE<std::uint64_t>(0);
    _dataStartPosition = _TellFilePos();
    if (_dataStartPosition < 0)
        return _Fail("the file position is not known");
    _currentZ = 0;
    return true;
}

// ---------------------------------------------------------------- footer

// The digest covers the header's slice count and data length, which are known only now, and
// MD5 takes its input strictly in order, so none of it can be worked out while the layers are
// written: it reads the finished file back (from the page cache, where it has just been written).
std::string M2DSliceIO_wza::_MD5ForWZA() const { return HexMD5OfFile(_filePath, -1); }

bool M2DSliceIO_wza::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    if (!_stream)
        return _Fail("the file is not open");
    const std::int64_t end = _TellFilePos();
    if (end < 0 || end < _dataStartPosition)
        return _Fail("the file position is not known");
    _SeekFilePos(_dataLengthPosition);
    _WriteLE<std::uint64_t>(static_cast<std::uint64_t>(end - _dataStartPosition));
    _SeekFilePos(_sliceCountPosition);
    _WriteLE<std::uint32_t>(_layerCount);
    _SeekFilePos(end);
    _FlushOut();
    std::fflush(_stream);
    const std::string digest = _MD5ForWZA();
    _Write(digest.data(), digest.size());
    return true;
}

std::string M2DSliceIO_wza::DigestOfFileBody(const std::wstring& path, std::string* stored)
{
    struct stat info;
    if (stat(Utf8Path(path).c_str(), &info) != 0 || info.st_size < 32)
        return {};
    const std::int64_t body = static_cast<std::int64_t>(info.st_size) - 32;
    if (stored)
    {
        stored->clear();
        if (std::FILE* f = std::fopen(Utf8Path(path).c_str(), "rb"))
        {
            char tail[32];
            if (fseeko(f, static_cast<off_t>(body), SEEK_SET) == 0 && std::fread(tail, 1, 32, f) == 32)
                stored->assign(tail, 32);
            std::fclose(f);
        }
    }
    return HexMD5OfFile(path, body);
}

// ---------------------------------------------------------------- header, reading

std::string M2DSliceIO_wza::_ReadNextStringFromFile(std::FILE* stream)
{
    // Each character is kept before it is tested, so the text ends in its NUL, or in 0xFF
    // where the file ended.
    std::string text;
    if (!stream)
        return std::string(1, '\xff');
    for (;;)
    {
        const int c = getc_unlocked(stream);
        text += static_cast<char>(c);
        if (c == 0 || c == EOF)
            return text;
    }
}

bool M2DSliceIO_wza::_ReadHeaderSettings(const std::string& name)
{
    std::uint32_t count = 0, length = 0;
    if (!_ReadLE(count))
        return _Fail("the " + name + " section ends before its item count");
    _headerProperties[name + "_COUNT"] = std::to_string(count);
    if (!_ReadLE(length))
        return _Fail("the " + name + " section ends before its length");
    _headerProperties[name + "_LENGTH"] = std::to_string(length);
    for (std::uint32_t i = 0; i < count; ++i)
    {
        const std::string index = std::to_string(i);
        std::uint32_t id = 0;
        std::uint8_t type = 0;
        if (!_ReadLE(id))
            return _Fail("the " + name + " section ends in item " + index);
        _headerProperties[name + "_ID_" + index] = std::to_string(id);
        if (!_ReadLE(type))
            return _Fail("the " + name + " section ends in item " + index);
        _headerProperties[name + "_TYPE_" + index] = std::to_string(type);
        const std::string key = name + "_VALUE_" + index;
        if (type == kTypeText)
            _headerProperties[key] = _ReadNextStringFromFile(_stream);
        else if (type == kTypeUnsigned)
        {
            std::uint32_t v = 0;
            if (!_ReadLE(v))
                return _Fail("the " + name + " section ends in item " + index);
            _headerProperties[key] = std::to_string(v);
        }
        else if (type == kTypeDouble)
        {
            double v = 0;
            if (!_ReadLE(v))
                return _Fail("the " + name + " section ends in item " + index);
            _headerProperties[key] = fmt::format("{:f}", v);
        }
        else if (type == kTypeBool)
        {
            std::uint8_t v = 0;
            if (!_ReadLE(v))
                return _Fail("the " + name + " section ends in item " + index);
            _headerProperties[key] = std::to_string(v);
        }
    }
    return true;
}

bool M2DSliceIO_wza::_ReadHeaderMetaStructure(const std::string& name)
{
    std::uint32_t count = 0, length = 0;
    if (!_ReadLE(count))
        return _Fail("the " + name + " section ends before its item count");
    _headerProperties[name + "_COUNT"] = std::to_string(count);
    if (!_ReadLE(length))
        return _Fail("the " + name + " section ends before its length");
    _headerProperties[name + "_LENGTH"] = std::to_string(length);
    for (std::uint32_t i = 0; i < count; ++i)
    {
        const std::string index = std::to_string(i);
        _headerProperties[name + "_DESC_" + index] = _ReadNextStringFromFile(_stream);
        std::uint8_t type = 0;
        if (!_ReadLE(type))
            return _Fail("the " + name + " section ends in item " + index);
        _headerProperties[name + "_TYPE_" + index] = std::to_string(type);
        if (type == kTypeText)
            _headerProperties[name + "_VALUE_" + index] = _ReadNextStringFromFile(_stream);
    }
    return true;
}

bool M2DSliceIO_wza::_ReadHeaderData()
{
    std::uint32_t machineTypeId = 0;
    std::uint8_t flags = 0;
    if (!_ReadLE(machineTypeId))
        return _Fail("the header ends before the machine type");
    _headerProperties["MACHINE_TYPE_ID"] = std::to_string(machineTypeId);
    if (!_ReadLE(flags))
        return _Fail("the header ends before its flags");
    _headerProperties["FLAGS"] = std::to_string(flags);

    struct Section
    {
        std::uint8_t Bit;
        std::size_t MarkerSize;
        const char* MarkerKey;
        const char* Name;
        bool Meta;
    };
    static const Section kSections[] = {
        {kFlagMachine, 2, "MACHINE_MARKER", "MACHINE", false},
        {kFlagMeta, 4, "META_MARKER", "META", true},
        {kFlagPreforms, 3, "PREFORM_MARKER", "PREFORM", false},
        {kFlagMonitoring, 4, "MONITORING_MARKER", "MONITORING", false},
    };
    for (const Section& s : kSections)
    {
        if (!(flags & s.Bit))
            continue;
        char marker[4];
        if (!_Read(marker, s.MarkerSize))
            return _Fail(std::string("the header ends before the ") + s.Name + " section");
        _headerProperties[s.MarkerKey] = std::string(marker, s.MarkerSize);
        if (!(s.Meta ? _ReadHeaderMetaStructure(s.Name) : _ReadHeaderSettings(s.Name)))
            return false;
    }
    return true;
}

bool M2DSliceIO_wza::_ReadHeader(ITarget2DSlices* /*target*/)
{
    if (!_stream)
        return _Fail("the file could not be opened for reading");
    char magic[8];
    if (!_Read(magic, sizeof magic))
        return _Fail("the file is shorter than its magic");
    if (std::memcmp(magic, kMagic, 8) != 0)
        return _Fail("no \"SiAMODeL\" at the start");
    _headerProperties["PREAMBLE"] = std::string(magic, 8);

    std::uint32_t version = 0;
    if (!_ReadLE(version))
        return _Fail("the header ends before the version");
    _headerProperties["VERSION"] = std::to_string(version);
    if (version < 1400)
        _isOldFormat = true;
    if (version < 1000 || version > _version)
        return _Fail(fmt::format("version {} is outside 1000 to {}", version, _version));

    std::uint32_t headerLength = 0;
    if (!_ReadLE(headerLength))
        return _Fail("the header ends before its length");
    _headerProperties["LOH"] = std::to_string(headerLength);
    const std::int64_t afterLength = _TellFilePos();
    const std::int64_t headerEnd = afterLength + static_cast<std::int64_t>(headerLength);
    if (afterLength < 0 || headerEnd < 0 || headerEnd <= static_cast<std::int64_t>(headerLength))
        return _Fail("the header's end is not known");

    _headerProperties["NAME"] = _ReadNextStringFromFile(_stream);
    double creationDate = 0;
    if (!_ReadLE(creationDate))
        return _Fail("the header ends before the creation date");
    _headerProperties["CREATION_DATE"] = fmt::format("{:f}", creationDate);

    if (version >= 1401 && !_ReadHeaderData())
        return false;

    float sliceHeight = 0;
    if (!_ReadLE(sliceHeight))
        return _Fail("the header ends before the slice height");
    _sliceHeight = _ConvertSingleToIntern(sliceHeight);
    _headerProperties["SLICE_HEIGHT"] = std::to_string(_sliceHeight);

    _currentZ = 0;
    std::uint32_t sliceCount = 0;
    if (!_ReadLE(sliceCount))
        return _Fail("the header ends before the slice count");
    _headerProperties["SLICE_COUNT"] = std::to_string(sliceCount);

    std::uint32_t partCount = 0;
    if (!_ReadLE(partCount))
        return _Fail("the header ends before the part count");
    _headerProperties["PARTS_COUNT"] = std::to_string(partCount);
    _partsById.clear();
    for (std::uint32_t i = 0; i < partCount; ++i)
    {
        std::uint32_t id = 0;
        if (!_ReadLE(id))
            return _Fail(fmt::format("the header ends in part entry {}", i));
        std::string name = _ReadNextStringFromFile(_stream);
        name.pop_back();
        _partsById.emplace(id, std::move(name));
    }

    // The header's last text is skipped, never read.
    if (!_SeekFilePos(headerEnd))
        return _Fail("the end of the header cannot be reached");
    if (version < 1300)
    {
        std::uint32_t dataLength = 0;
        if (!_ReadLE(dataLength))
            return _Fail("the file ends before the data length");
    }
    else
    {
        std::uint64_t dataLength = 0;
        if (!_ReadLE(dataLength))
            return _Fail("the file ends before the data length");
    }
    return true;
}

bool M2DSliceIO_wza::_ReadFooter(ITarget2DSlices* /*target*/) { return true; }
