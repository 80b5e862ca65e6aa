#pragma once
#include "../framework/Export.h"
#include <map>
#include <string>

// Event parser over expat. Subclasses get start tags with their attributes, end tags and
// character data (possibly in several pieces for one run of text). Parse errors make
// ParseString return false with a message naming the line. An exception thrown by a handler
// stops the parse and leaves ParseString.
class SLICEIO_API MXMLExpat
{
public:
    MXMLExpat() = default;
    virtual ~MXMLExpat() = default;

    bool ParseString(const std::string& text);
    const std::string& GetErrorMessage() const { return _error; }

protected:
    virtual void OnStartElement(const std::string& name, const std::map<std::string, std::string>& attributes) = 0;
    virtual void OnEndElement(const std::string& /*name*/) {}
    virtual void OnCharacterData(const std::string& /*text*/) {}

private:
    friend struct MXMLExpatCallbacks;
    std::string _error;
};
