#include "MXMLWriter.h"

MXMLWriter::MXMLWriter(EXMLEncoding /*encoding: UTF-8 is the only one*/) {}

MXMLWriter::~MXMLWriter()
{
    if (_file.IS_OPEN())
        Close();
}

bool MXMLWriter::Open(const std::filesystem::path& path)
{
    _open.clear();
    _inStartTag = false;
    _ok = _file.OPEN_WRITE(path.wstring().c_str()) &&
          _file.WRITE_STRING("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    return _ok;
}

// Ends a pending start tag: a child element goes on the next line, text right behind it.
bool MXMLWriter::_CloseStartTag(bool newLine)
{
    if (!_inStartTag)
        return true;
    _inStartTag = false;
    _ok = _file.WRITE_STRING(newLine ? ">\n" : ">");
    return _ok;
}

bool MXMLWriter::WriteStartTag(const char* name)
{
    if (!_ok || !name || !*name || !_CloseStartTag(true))
        return _ok = false;
    _ok = _file.WRITE_STRING("<") && _file.WRITE_STRING(name);
    _open.emplace_back(name);
    _inStartTag = true;
    return _ok;
}

bool MXMLWriter::WriteAttribute(const char* name, const std::string& value)
{
    if (!_ok || !_inStartTag || !name || !*name)
        return _ok = false;
    _ok = _file.WRITE_STRING(" ") && _file.WRITE_STRING(name) && _file.WRITE_STRING("=\"") &&
          _file.WRITE_STRING(Escape(value)) && _file.WRITE_STRING("\"");
    return _ok;
}

bool MXMLWriter::WriteText(const std::string& text)
{
    if (!_ok || _open.empty() || !_CloseStartTag(false))
        return _ok = false;
    _ok = _file.WRITE_STRING(Escape(text));
    return _ok;
}

bool MXMLWriter::WriteEndTag(const char* name)
{
    if (!_ok || !name || _open.empty() || _open.back() != name)
        return _ok = false;
    if (_inStartTag)
        _ok = _file.WRITE_STRING("/>\n");
    else
        _ok = _file.WRITE_STRING("</") && _file.WRITE_STRING(name) && _file.WRITE_STRING(">\n");
    _inStartTag = false;
    _open.pop_back();
    return _ok;
}

// False when elements are left open or anything failed; the file is closed either way.
bool MXMLWriter::Close()
{
    bool ok = _ok && _open.empty();
    ok = _file.CLOSE() && ok;
    _ok = false;
    return ok;
}

std::string MXMLWriter::Escape(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text)
    {
        switch (c)
        {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        // Kept as references so that attribute normalisation does not turn them into blanks.
        case '\t':
            out += "&#9;";
            break;
        case '\n':
            out += "&#10;";
            break;
        case '\r':
            out += "&#13;";
            break;
        default:
            // Other control characters can not appear in XML 1.0 at all, not even as references.
            if (static_cast<unsigned char>(c) < 0x20)
                out += "\xEF\xBF\xBD";
            else
                out += c;
        }
    }
    return out;
}
