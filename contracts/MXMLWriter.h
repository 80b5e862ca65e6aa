#pragma once
#include <filesystem>
#include <string>
#include <vector>

#include "MFile.h"
#include "SAX.h"

enum EXMLEncoding
{
    EXMLEncoding_UTF8 = 0,
};

// Streaming XML writer: elements nest, attributes follow their start tag, text is escaped.
// An element with no content is closed as <name .../>. Every call returns false after a
// failure, and nothing is thrown.
class MXMLWriter : public ZanSAX::ISAXWriter
{
public:
    explicit MXMLWriter(EXMLEncoding encoding = EXMLEncoding_UTF8);
    ~MXMLWriter() override;

    bool Open(const std::filesystem::path& path);
    bool WriteStartTag(const char* name) override;
    bool WriteAttribute(const char* name, const std::string& value) override;
    bool WriteText(const std::string& text);
    bool WriteEndTag(const char* name) override;
    bool Close();

    static std::string Escape(const std::string& text);

private:
    bool _CloseStartTag();
    MFile _file;
    std::vector<std::string> _open;
    bool _inStartTag = false;
    bool _hasContent = false;
    bool _ok = false;
};
