#pragma once
// Number and piece access for ASCII CLI lines, with the exceptions callers of the ASCII readers
// rely on: std::invalid_argument "invalid stoi argument" / "invalid stod argument",
// std::out_of_range "stoi argument out of range" / "stod argument out of range", and
// std::out_of_range "invalid vector subscript" for a line with fewer pieces than its count.
#include <charconv>
#include <stdexcept>
#include <system_error>
#include <string>
#include <string_view>
#include <vector>

#include "../../framework/I2DSliceIO.h"

namespace CliText {

inline int Stoi(const std::string& text)
{
    try
    {
        return std::stoi(text);
    }
    catch (const std::invalid_argument&)
    {
        throw std::invalid_argument("invalid stoi argument");
    }
    catch (const std::out_of_range&)
    {
        throw std::out_of_range("stoi argument out of range");
    }
}

inline double Stod(const std::string& text)
{
    // The common case, a plain number that fills the piece, without the C library's locale
    // lookups; anything else (spaces, a sign, trailing text, out of range) as std::stod has it.
    double value = 0.0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    if (parsed.ec == std::errc() && parsed.ptr == end && !text.empty())
        return value;
    try
    {
        return std::stod(text);
    }
    catch (const std::invalid_argument&)
    {
        throw std::invalid_argument("invalid stod argument");
    }
    catch (const std::out_of_range&)
    {
        throw std::out_of_range("stod argument out of range");
    }
}

inline const std::string& Piece(const std::vector<std::string>& pieces, std::size_t i)
{
    if (i >= pieces.size())
        throw std::out_of_range("invalid vector subscript");
    return pieces[i];
}

// The pieces of text between the separators; an empty text gives one empty piece.
inline void Split(const std::string& text, char separator, std::vector<std::string>& pieces)
{
    pieces.clear();
    std::size_t start = 0;
    for (std::size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1)
        pieces.emplace_back(text, start, end - start);
    pieces.emplace_back(text, start);
}

// One layer of an ASCII file (the text behind its "$$LAYER/", height first) to input: lines
// longer than 10 characters that begin "$$POLYLINE/" and longer than 9 that begin "$$HATCHES/"
// are read, every other line is skipped; coordinates are Round(value * c). The text is parsed
// where it lies; what a piece holds and which exception a bad one gives are as with Split,
// Piece, Stoi and Stod on the lines and their pieces.
void ReadLayerText(std::string_view text, double c, I2DSliceIO::ILayerInput& input);
inline void ReadLayerText(const std::string& text, double c, I2DSliceIO::ILayerInput& input)
{
    ReadLayerText(std::string_view(text), c, input);
}

} // namespace CliText
