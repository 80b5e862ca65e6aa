#include "CliText.h"

#include <cstring>

#include "../../framework/ConvertKernels.h"

namespace CliText {

namespace {

using ConvertKernels::Round;

bool StartsWith(const std::string& text, const char* prefix)
{
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// The number behind the "/" of a piece such as "$$POLYLINE/3".
int IdOf(const std::string& piece) { return Stoi(piece.substr(piece.find('/') + 1)); }

M2DSliceVectorTypeInfo HatchLabel(std::int32_t id)
{
    M2DSliceVectorTypeInfo label(e2DSliceVectorType_Hatch);
    label.SetIndex(e2DSliceVectorTypeIndex_Part, id);
    return label;
}

} // namespace

void ReadLayerText(const std::string& text, double c, I2DSliceIO::ILayerInput& input)
{
    std::vector<std::string> lines, pieces;
    Split(text, '\n', lines);
    input.SetZ(Round(Stod(lines[0]) * c));
    for (std::size_t l = 1; l < lines.size(); ++l)
    {
        const std::string& line = lines[l];
        if (line.size() > 10 && StartsWith(line, "$$POLYLINE/"))
        {
            Split(line, ',', pieces);
            const int id = IdOf(Piece(pieces, 0));
            const int dir = Stoi(Piece(pieces, 1));
            const int n = Stoi(Piece(pieces, 2));
            input.StartContour(e2DSliceVectorType_Border);
            input.SetContourClosed(dir != 2);
            input.SetContourOuter(dir == 1);
            for (int i = 0; i < n; ++i)
            {
                const double x = Stod(Piece(pieces, 3 + 2 * std::size_t(i)));
                const double y = Stod(Piece(pieces, 4 + 2 * std::size_t(i)));
                input.AddContourPoint(Round(x * c), Round(y * c));
            }
            input.EndContour(true);
            if (M2DSliceVectorTypeInfo* label = input.GetContourTypeInfo())
                label->SetIndex(e2DSliceVectorTypeIndex_Part, id);
        }
        else if (line.size() > 9 && StartsWith(line, "$$HATCHES/"))
        {
            Split(line, ',', pieces);
            const int id = IdOf(Piece(pieces, 0));
            const int n = Stoi(Piece(pieces, 1));
            input.StartVectorBlock(HatchLabel(id), 0);
            for (int i = 0; i < n; ++i)
            {
                int v[4];
                for (std::size_t k = 0; k < 4; ++k)
                    v[k] = Round(Stod(Piece(pieces, 2 + 4 * std::size_t(i) + k)) * c);
                input.AddVector(M2DSliceVector(v[0], v[1], v[2], v[3]));
            }
        }
    }
}


} // namespace CliText
