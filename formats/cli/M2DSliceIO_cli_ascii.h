#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/Export.h"
#include "../../framework/I2DSliceIO.h"

// ASCII Common Layer Interface (file-type code 56): writes the text form, with final header
// values and one line per polyline or hatch block, and reads it with a stricter header check
// than M2DSliceIO_cli: all of "$$HEADERSTART", "$$ASCII", "$$UNITS/", "$$VERSION/" (200 or
// more), "$$DIMENSION/" (six values), "$$LAYERS/" (the number of layers in the file) and
// "$$HEADEREND" must be there. No append mode and no size estimate.
class SLICEIO_API M2DSliceIO_cli_ascii : public I2DSliceIO
{
public:
    M2DSliceIO_cli_ascii() = default;

    // Id of the first slice of a layer; the ids rise by one per slice. The header's
    // "$$LABEL/1,part1" line stays as it is.
    void SetModelStartIndex(int index) { _modelStartIndex = index; }
    int GetModelStartIndex() const { return _modelStartIndex; }

protected:
    // The position is the index of the next layer text (the header is text 0), so that a lazy
    // reader can come back.
    std::int64_t _TellFilePos() override { return static_cast<std::int64_t>(_layerTextIndex); }
    bool _SeekFilePos(std::int64_t position) override;
    bool _OpenFile(const std::wstring& path, MOpenMode mode) override;
    bool _CloseFile() override { return true; }
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override;
    bool _WriteHeaderPerSliceContainer(std::uint64_t /*index*/) override { return true; }
    bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                     const M2DSliceConstDataItems& items) override;
    bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) override;
    bool _ReadHeader(ITarget2DSlices* target) override;
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) override;
    bool _ReadFooter(ITarget2DSlices* /*target*/) override { return true; }

    // The box of all sources: x and y from each one's area, z from its first and last slice.
    void _CalculateContainerDimensions(const std::vector<const ISource2DSlices*>& sources);

private:
    bool _FetchLayer(ILayerInput& input);

    std::vector<std::int64_t> _markers; // file offsets of the "$$LAYER/" markers
    std::int64_t _textSize = 0;         // the file's size when its header was read
    std::vector<char> _layerText;       // the text of the layer being read
    std::vector<char> _out;                    // the text of a layer being written
    std::uint64_t _layerTextIndex = 0;
    int _modelStartIndex = 1;
};
