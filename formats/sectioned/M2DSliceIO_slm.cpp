// The frame of an SLM file: header, file history, seek table, checksum, identification.
#include "M2DSliceIO_slm.h"

#include <zlib.h>

#include <cstring>
#include <locale>
#include <sstream>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <fmt/format.h>

#include "../../contracts/MUnit.h"
#include "../../contracts/StringConversion.h"
#include "../../contracts/TemporaryDirectory.h"
#include "M2DSliceIOCompressor.h"

#include <atomic>

using namespace Sectioned;

namespace {

constexpr const char* kSlmFileId = "SLM-Layerfile";
constexpr const char* kMttFileId = "MTT-Layerfile";
constexpr std::uint64_t kCompressionBuffer = 262144;
std::atomic<bool> g_repairByDefault{false};
constexpr std::int64_t kMaxFileIdSize = 512;
constexpr unsigned short kSlmFileType = 47;

// The local time of writing as "%Y-%m-%d %H:%M:%S".
std::string CreationTime()
{
    using namespace boost::posix_time;
    std::ostringstream out;
    out.imbue(std::locale(std::locale::classic(), new time_facet("%Y-%m-%d %H:%M:%S")));
    out << second_clock::local_time();
    return out.str();
}

} // namespace

M2DSliceIO_sectioned::M2DSliceIO_sectioned(bool compressed)
    : _compressed(compressed), _decompressRepair(g_repairByDefault.load())
{
}

void M2DSliceIO_sectioned::SetDecompressRepairByDefault(bool repair) { g_repairByDefault = repair; }
bool M2DSliceIO_sectioned::GetDecompressRepairByDefault() { return g_repairByDefault; }

M2DSliceIO_sectioned::~M2DSliceIO_sectioned() = default;

bool M2DSliceIO_sectioned::_OpenFile(const std::wstring& /*path*/, MOpenMode /*mode*/) { return true; }
bool M2DSliceIO_sectioned::_CloseFile() { return true; }
bool M2DSliceIO_sectioned::_ReadFooter(ITarget2DSlices* /*target*/) { return true; }

const char* M2DSliceIO_sectioned::_FileIdText() const { return _fileType == kSlmFileType ? kSlmFileId : kMttFileId; }

// ------------------------------------------------------------------ writing

bool M2DSliceIO_sectioned::_Emit(const void* data, std::size_t n)
{
    _crcAfterHeader = static_cast<std::uint32_t>(
        crc32_z(_crcAfterHeader, static_cast<const Bytef*>(data), static_cast<z_size_t>(n)));
    _bytesAfterHeader += n;
    return WriteAll(_file, data, n);
}

bool M2DSliceIO_sectioned::_WriteHeaderSizeInfo(std::uint64_t size)
{
    unsigned char bytes[1 + kFixedLFSize] = {static_cast<unsigned char>(Id_Header)};
    if (!_file.SEEK(0, 0) || !WriteAll(_file, bytes, 1))
        return false;
    if (EncodeLF(size, bytes + 1, kMaxLFSize, true) != kFixedLFSize)
        return false;
    return WriteAll(_file, bytes + 1, kFixedLFSize);
}

void M2DSliceIO_sectioned::_WriteFileHistorySection(SectionBuffer& out) const
{
    const std::size_t at = out.OpenFixed(Id_FileHistory);
    out.Wide(Id_ProductName, _productName);
    out.Wide(Id_ProductVersion, _productVersion);
    out.Narrow(Id_CreationTime, CreationTime());
    out.CloseFixed(at);
}

void M2DSliceIO_sectioned::_WriteHeaderFrame(SectionBuffer& out, std::size_t& seekPointerAt) const
{
    out.Narrow(Id_FileId, _FileIdText());
    out.Head(Id_FileVersion, 2);
    out.LF(1);
    out.LF(10);
    out.Narrow(Id_FileGuid, StringConversion::NativeToUtf8(_fileGuid));
    out.Integer(Id_ZUnit, static_cast<std::uint64_t>(MUnit::GetIE()));
    // Section 4 is written in the fixed form with the id and a size of 8 before it, and
    // points at the seek table once that has been written.
    out.U8(Id_SeekTablePointer);
    out.U8(kFixedLFSize);
    seekPointerAt = out.Size();
    out.LF(0, true);
    _WriteFileHistorySection(out);
    out.Wide(Id_UsedMaterialComment, _usedMaterialComment);
    out.Wide(Id_UsedMaterialName, _usedMaterialName);
}

bool M2DSliceIO_sectioned::_WriteHeader(const std::vector<const ISource2DSlices*>& sources)
{
    _seekEntries.clear();
    _models.clear();
    _headerBytes.clear();
    _crcAfterHeader = static_cast<std::uint32_t>(crc32_z(0, nullptr, 0));
    _bytesAfterHeader = 0;
    // The file must allow patching, so it is opened again for update. A compressed file is
    // written plain first, as "temp_uncompressed.slm" in a directory of its own, so that two
    // writers side by side never meet.
    _file.CLOSE();
    _plainPath = _path;
    if (_compressed)
    {
        _tempDirectory = std::make_unique<ZanSDK::FileIO::FileSystem::TemporaryDirectory>();
        _plainPath = _tempDirectory->GetPath() + L"/temp_uncompressed.slm";
    }
    if (!_file.OPEN_UPDATE(_plainPath.c_str()))
        return _Fail("cannot open the file again for update");

    std::string failure;
    bool ok = _GetBuildStyleListNameAndTopSlice(sources, _models);
    if (!ok)
        failure = _failureReason.empty() ? "the sources do not name their models and build styles" : _failureReason;
    _failureReason.clear();
    _FinishModels(sources);

    SectionBuffer out(_headerBytes);
    out.U8(Id_Header);
    const std::size_t sizeAt = out.Size();
    out.LF(0, true);
    std::size_t seekPointerAt = 0;
    _WriteHeaderFrame(out, seekPointerAt);
    ok = ok && out.Ok();
    // The result of the last model section replaces what was gathered before: a failed
    // gathering is forgotten once a model has been written.
    for (const auto& model : _models)
        ok = _WriteModelSection(*model, out);
    out.CloseFixed(sizeAt);
    _seekPointerPosition = static_cast<std::int64_t>(seekPointerAt);
    if (!out.Ok())
        return _Fail("a header value is too large for an LF number");
    if (!WriteAll(_file, _headerBytes))
        return _Fail("writing the header failed");
    if (!ok)
        return _Fail(failure.empty() ? "a model section could not be written" : failure);
    return true;
}

bool M2DSliceIO_sectioned::_WriteSeekTable()
{
    const std::int64_t position = _file.TELL();
    std::vector<unsigned char> bytes;
    SectionBuffer out(bytes);
    const std::size_t at = out.OpenFixed(Id_SeekTable);
    for (const SeekTableEntry& entry : _seekEntries)
    {
        const auto layerPosition = static_cast<std::uint64_t>(entry.Position);
        const auto z = static_cast<std::uint64_t>(std::lround(_GetConversionFactor() * entry.Z));
        out.Head(Id_SeekTableEntry, IntegerSectionSize(Id_LayerPosition, layerPosition) +
                                        IntegerSectionSize(Id_LayerZ, z));
        out.Integer(Id_LayerPosition, layerPosition);
        out.Integer(Id_LayerZ, z);
    }
    out.CloseFixed(at);
    if (!out.Ok())
        return _Fail("a seek table value is too large for an LF number");
    if (!_Emit(bytes))
        return _Fail("writing the seek table failed");

    // Section 4 points at the table: in the file and in the copy the checksum is taken of.
    SectionBuffer header(_headerBytes);
    header.PatchFixed(static_cast<std::size_t>(_seekPointerPosition), static_cast<std::uint64_t>(position));
    const std::int64_t end = _file.TELL();
    if (!header.Ok() || !_file.SEEK(_seekPointerPosition, 0) ||
        !WriteAll(_file, _headerBytes.data() + _seekPointerPosition, kFixedLFSize) || !_file.SEEK(end, 0))
        return _Fail("patching the seek table pointer failed");
    return true;
}

bool M2DSliceIO_sectioned::_WriteChecksumSection()
{
    const unsigned char head[2] = {static_cast<unsigned char>(Id_Checksum), 4};
    if (!_Emit(head, sizeof head))
        return _Fail("writing the checksum failed");
    // The header was patched after it was written, so its checksum is taken now, of the bytes
    // as they stand in the file, and joined with the checksum of everything after it.
    uLong crc = crc32_z(0, _headerBytes.data(), _headerBytes.size());
    crc = crc32_combine(crc, _crcAfterHeader, static_cast<z_off_t>(_bytesAfterHeader));
    if (!WriteLE<std::uint32_t>(_file, static_cast<std::uint32_t>(crc)))
        return _Fail("writing the checksum failed");
    return true;
}

bool M2DSliceIO_sectioned::_WriteChecksumSection(MFile& file)
{
    if (!file.FLUSH())
        return false;
    const std::int64_t size = file.GET_SIZE();
    if (size <= 4)
        return true; // the placeholder stays
    if (!file.SEEK(0, 0))
        return false;
    uLong crc = crc32_z(0, nullptr, 0);
    std::vector<unsigned char> chunk(8192);
    for (std::int64_t left = size - 4; left > 0;)
    {
        const std::size_t n = static_cast<std::size_t>(std::min<std::int64_t>(left, 8192));
        if (file.ReadBytes(chunk.data(), n) != n)
            return false;
        crc = crc32_z(crc, chunk.data(), n);
        left -= static_cast<std::int64_t>(n);
    }
    return WriteLE<std::uint32_t>(file, static_cast<std::uint32_t>(crc));
}

bool M2DSliceIO_sectioned::_WriteFooter(const std::vector<const ISource2DSlices*>& /*sources*/)
{
    if (!_WriteSeekTable() || !_WriteChecksumSection())
        return false;
    return !_compressed || _WriteCompressed();
}

bool M2DSliceIO_sectioned::_WriteCompressed()
{
    // The plain file is complete: it is read once and coded into the target, whose checksum
    // then covers the coded file. The writer's own file is left open on the target.
    _file.CLOSE();
    if (!_file.OPEN_READ(_plainPath.c_str()))
        return _Fail("cannot open the plain file for compression");
    MFile out(kCompressionBuffer);
    if (!out.OPEN_UPDATE(_path.c_str()))
        return _Fail("cannot open the target for the compressed file");
    Sectioned::M2DSliceIOCompressor compressor(_file, out);
    if (!compressor.Compress())
        return _Fail("compression: " + compressor.GetFailureReason());
    if (!out.FLUSH() || !out.CLOSE() || !out.OPEN_UPDATE(_path.c_str()) || !_WriteChecksumSection(out) ||
        !out.FLUSH() || !out.CLOSE())
        return _Fail("writing the checksum of the compressed file failed");
    _file.CLOSE();
    _tempDirectory.reset();
    return _file.OPEN_UPDATE(_path.c_str()) || _Fail("cannot open the compressed file again");
}

bool M2DSliceIO_sectioned::_ReadCompressed()
{
    // Decoded into a fresh temporary file, which the layers are then read from.
    _tempDirectory = std::make_unique<ZanSDK::FileIO::FileSystem::TemporaryDirectory>();
    const std::wstring plain = _tempDirectory->GetTemporaryFilePath();
    MFile out(kCompressionBuffer);
    if (!out.OPEN_UPDATE(plain.c_str()) || !_file.SEEK(0, 0))
        return _Fail("cannot open a temporary file to decompress into");
    Sectioned::M2DSliceIODecompressor decompressor(_file, out);
    decompressor.SetRepair(_decompressRepair);
    if (!decompressor.Decompress())
        return _Fail("decompression: " + decompressor.GetFailureReason());
    if (!out.FLUSH() || !out.CLOSE())
        return _Fail("writing the decompressed file failed");
    _file.CLOSE();
    _path = plain;
    return _file.OPEN_UPDATE(plain.c_str()) || _Fail("cannot open the decompressed file");
}

// ------------------------------------------------------------------ reading

bool M2DSliceIO_sectioned::_IdentifyFile(bool& compressed)
{
    SectionHeader head;
    if (!ReadHead(_file, head) || head.Id != Id_Header)
        return false;
    if (!ReadHead(_file, head) || head.Id != Id_FileId || head.Size < 0 || head.Size >= kMaxFileIdSize)
        return false;
    char text[kMaxFileIdSize];
    const auto n = static_cast<std::size_t>(head.Size);
    if (_file.ReadBytes(text, n) != n)
        return false;
    const std::string id(text, strnlen(text, n));
    if (id == Sectioned::kCompressedFileId)
    {
        compressed = true;
        return true;
    }
    return id == kSlmFileId || id == kMttFileId;
}

bool M2DSliceIO_sectioned::_ReadHeader(ITarget2DSlices* target)
{
    _modelTable.clear();
    _properties.clear();
    _headerInfo.clear();
    _fileGuid.clear();
    _entriesRead = 0;
    _seekTableOffset = 0;
    _buildStyleList = nullptr;
    _buildParameters = nullptr;

    bool compressed = _compressed;
    if (!_IdentifyFile(compressed))
        return _Fail("not an SLM or MTT file: no \"SLM-Layerfile\" or \"MTT-Layerfile\" at the start");
    _compressed = compressed;
    if (_compressed && !_ReadCompressed())
        return false;
    if (!_file.SEEK(0, 0))
        return _Fail("cannot seek to the start");

    SectionHeader head;
    ByteCursor header;
    if (!ReadHead(_file, head) || head.Id != Id_Header)
        return _Fail("the file does not begin with section 1");
    if (head.Size < 0 || !ReadRecord(_file, static_cast<std::size_t>(head.Size), _recordStorage, header))
        return _FailAt(fmt::format("header of {} bytes is larger than the file", head.Size), _file.TELL());

    ByteCursor body;
    while (!header.AtEnd())
    {
        const std::size_t at = header.Offset();
        if (!ReadSection(header, head, body))
            return _Fail(fmt::format("header section at header offset {} runs past the header", at));
        switch (head.Id)
        {
        case Id_FileId:
        {
            const std::string text = LoadNarrow(body);
            if (head.Size >= kMaxFileIdSize || (text != kSlmFileId && text != kMttFileId))
                return _Fail("file id is neither \"SLM-Layerfile\" nor \"MTT-Layerfile\"");
            _headerInfo["File ID String"] = text;
            break;
        }
        case Id_FileVersion:
        {
            std::int64_t major = 0, minor = 0;
            if (!DecodeLF(body, major) || !DecodeLF(body, minor))
                return _Fail("file version section too short");
            _headerInfo["File Version"] = fmt::format("{}.{}", major, minor);
            break;
        }
        case Id_SeekTablePointer:
            if (!LoadInteger(body, _seekTableOffset))
                return _Fail("seek table pointer section too short");
            break;
        case Id_Model:
            if (!_LoadModelInfo(body))
                return false;
            break;
        case Id_ZUnit:
        {
            std::int64_t unit = 0;
            if (!LoadInteger(body, unit))
                return _Fail("z unit section too short");
            _headerInfo["Layer Z Unit"] = std::to_string(unit);
            break;
        }
        case Id_FileGuid:
        {
            std::string text(reinterpret_cast<const char*>(body.Data()), body.Remaining());
            while (!text.empty() && text.back() == '\0')
                text.pop_back();
            _fileGuid = StringConversion::Utf8ToNative(text);
            break;
        }
        default:
            break; // sections 36, 38, 44 and unknown ones are passed over
        }
    }

    const std::int64_t fileSize = _file.GET_SIZE();
    if (_seekTableOffset <= 0 || _seekTableOffset >= fileSize || !_file.SEEK(_seekTableOffset, 0) ||
        !ReadHead(_file, _seekSectionHeader) || _seekSectionHeader.Id != Id_SeekTable)
        return _Fail(fmt::format("no seek table (section 8) at offset {}", _seekTableOffset));
    _seekTableEnd = _file.TELL() + _seekSectionHeader.Size;
    if (_seekSectionHeader.Size < 0 || _seekTableEnd > fileSize)
        return _Fail(fmt::format("seek table of {} bytes is larger than the file", _seekSectionHeader.Size));
    _ConvertModelInfoToBuildParameters(target);
    return true;
}
