#include "MXMLExpat.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <memory>

#include <expat.h>

// Expat calls back into C++ through these. A handler that throws must not unwind through
// expat's C frames: the exception is kept, the parser stopped, and the exception rethrown
// once expat has returned.
struct MXMLExpatCallbacks
{
    MXMLExpat* owner;
    XML_Parser parser;
    std::exception_ptr thrown;

    template <class F>
    static void Guarded(void* data, F&& call)
    {
        auto* self = static_cast<MXMLExpatCallbacks*>(data);
        if (self->thrown)
            return;
        try
        {
            call(*self->owner);
        }
        catch (...)
        {
            self->thrown = std::current_exception();
            XML_StopParser(self->parser, XML_FALSE);
        }
    }
    static void Start(void* data, const XML_Char* name, const XML_Char** attributes)
    {
        Guarded(data, [&](MXMLExpat& owner) {
            std::map<std::string, std::string> map;
            for (const XML_Char** a = attributes; a && a[0]; a += 2)
                map[a[0]] = a[1];
            owner.OnStartElement(name, map);
        });
    }
    static void End(void* data, const XML_Char* name)
    {
        Guarded(data, [&](MXMLExpat& owner) { owner.OnEndElement(name); });
    }
    static void Text(void* data, const XML_Char* text, int length)
    {
        Guarded(data, [&](MXMLExpat& owner) { owner.OnCharacterData(std::string(text, std::size_t(length))); });
    }
};

bool MXMLExpat::ParseString(const std::string& text)
{
    _error.clear();
    std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser(XML_ParserCreate(nullptr), XML_ParserFree);
    if (!parser)
    {
        _error = "out of memory";
        return false;
    }
    MXMLExpatCallbacks callbacks{this, parser.get(), nullptr};
    XML_SetUserData(parser.get(), &callbacks);
    XML_SetElementHandler(parser.get(), &MXMLExpatCallbacks::Start, &MXMLExpatCallbacks::End);
    XML_SetCharacterDataHandler(parser.get(), &MXMLExpatCallbacks::Text);

    // Expat takes int lengths: very long texts go in pieces.
    const std::size_t chunk = INT_MAX / 2;
    std::size_t done = 0;
    XML_Status status = XML_STATUS_OK;
    do
    {
        std::size_t n = std::min(chunk, text.size() - done);
        bool last = done + n == text.size();
        status = XML_Parse(parser.get(), text.data() + done, static_cast<int>(n), last);
        done += n;
    } while (status == XML_STATUS_OK && done < text.size());

    if (callbacks.thrown)
        std::rethrow_exception(callbacks.thrown);
    if (status != XML_STATUS_OK)
    {
        _error = std::string(XML_ErrorString(XML_GetErrorCode(parser.get()))) + " at line " +
                 std::to_string(XML_GetCurrentLineNumber(parser.get()));
        return false;
    }
    return true;
}
