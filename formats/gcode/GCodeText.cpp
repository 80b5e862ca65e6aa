#include "GCodeText.h"

#include <cmath>
#include <ctime>
#include <iterator>

#include <fmt/format.h>

#include "../../contracts/MFile.h"
#include "../../contracts/PersistentProperties.h"
#include "../../contracts/StringConversion.h"

GCodeText& GCodeText::General(double value)
{
    fmt::format_to(std::back_inserter(_line), "{:g}", value);
    return *this;
}

GCodeText& GCodeText::Fixed(double value, int decimals)
{
    fmt::format_to(std::back_inserter(_line), "{:.{}f}", value, decimals);
    return *this;
}

GCodeText& GCodeText::Integer(std::int64_t value)
{
    fmt::format_to(std::back_inserter(_line), "{}", value);
    return *this;
}

GCodeText& GCodeText::Unsigned(std::uint64_t value)
{
    fmt::format_to(std::back_inserter(_line), "{}", value);
    return *this;
}

namespace {

std::string ExpandKey(const std::string& key, const PersistentProperties& properties, const std::tm& now)
{
    if (const IPersistentProperty* property = properties.GetProperty(StringConversion::LocaleToNative(key)))
        if (property->GetType() == EPropertyType::String && property->IsDefined())
            if (auto* text = dynamic_cast<const PersistentProperty<std::wstring>*>(property))
                return StringConversion::NativeToLocale(text->GetValue());
    const int year = now.tm_year + 1900;
    if (key == "YYYY")
        return fmt::format("{:04}", year);
    if (key == "YY")
        return fmt::format("{:02}", ((year % 100) + 100) % 100);
    if (key == "MM")
        return fmt::format("{:02}", now.tm_mon + 1);
    if (key == "DD")
        return fmt::format("{:02}", now.tm_mday);
    return "%%" + key + "%%";
}

} // namespace

std::string GCodeExpandTemplate(const std::string& text, const PersistentProperties& properties)
{
    // Cut into tokens at each "%%"; a lone '%' belongs to its token, unless it ends the text.
    std::string out;
    std::string token;
    bool key = false;
    bool timeKnown = false;
    std::tm now{};
    const auto flush = [&]() {
        if (!key)
            out += token;
        else
        {
            if (!timeKnown)
            {
                const std::time_t t = std::time(nullptr);
                localtime_r(&t, &now);
                timeKnown = true;
            }
            out += ExpandKey(token, properties, now);
        }
        token.clear();
        key = !key;
    };
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%')
        {
            flush();
            ++i;
        }
        else if (text[i] == '%' && i + 1 == text.size())
            break;
        else
            token += text[i];
    }
    flush();
    return out;
}

bool GCodeWriteText(MFile& file, const std::string& text)
{
    if (text.empty())
        return true;
    bool complete = file.WriteBytes(text.data(), text.size()) == text.size();
    if (text.back() != '\n')
        complete = file.WriteBytes("\n", 1) == 1 && complete;
    return complete;
}

double GCodeSafeDistance(double x0, double y0, double x1, double y1)
{
    double a = std::fabs(x1 - x0);
    double b = std::fabs(y1 - y0);
    if (a < b)
        std::swap(a, b);
    const double m = std::max(a, 5e-324);
    const double r = b / m;
    return a * std::sqrt(1.0 + r * r);
}
