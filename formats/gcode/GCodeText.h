#pragma once
// Line composition shared by the G-code writers: numbers printed as a default text stream
// prints them (general form with six significant digits, "%g"), in fixed notation with a
// given number of decimals, or as integers; and the expansion of %%KEY%% templates.
#include <cstdint>
#include <string>

class MFile;
class PersistentProperties;

class GCodeText
{
public:
    void Clear() { _line.clear(); }
    GCodeText& Text(const std::string& text)
    {
        _line.append(text);
        return *this;
    }
    GCodeText& Text(const char* text)
    {
        _line.append(text);
        return *this;
    }
    // General form, six significant digits: 1234.5678 gives "1234.57", 1e8 "1e+08".
    GCodeText& General(double value);
    // A coordinate in 1/10000 mm in general form, as General(value / 10000.0) prints it.
    GCodeText& Fixed(double value, int decimals);
    GCodeText& Integer(std::int64_t value);
    GCodeText& Unsigned(std::uint64_t value);

    const std::string& Line() const { return _line; }
    std::string& LineUpdate() { return _line; }

private:
    std::string _line;
};

// The expansion of a template text: tokens between pairs of "%%" at odd positions are keys,
// looked up as wide-string properties, then as the date keys YYYY, YY, MM, DD of this
// moment; an unknown key stays "%%KEY%%". A single '%' at the very end is dropped.
std::string GCodeExpandTemplate(const std::string& text, const PersistentProperties& properties);

// Writes text and, when its last byte is not one, a newline. True when all bytes went out.
bool GCodeWriteText(MFile& file, const std::string& text);

// Distance in the plane in a form that neither overflows nor underflows.
double GCodeSafeDistance(double x0, double y0, double x1, double y1);
