#pragma once
#include "../framework/Export.h"
#include <string>

// The small streaming interfaces through which labels and other records persist
// themselves as XML elements. A writer receives tags and attributes in document order;
// a reader hands each element with its attributes to the object that owns the element.
namespace ZanSAX {

class SLICEIO_API ISAXWriter
{
public:
    virtual ~ISAXWriter() = default;
    virtual bool WriteStartTag(const char* name) = 0;
    virtual bool WriteAttribute(const char* name, const std::string& value) = 0;
    virtual bool WriteEndTag(const char* name) = 0;
};

class SLICEIO_API ISAXReader
{
public:
    virtual ~ISAXReader() = default;
    // Name of the element being handled.
    virtual const std::string& GetTagName() const = 0;
    // Value of an attribute of that element; false when it is absent.
    virtual bool GetAttribute(const char* name, std::string& value) const = 0;
};

} // namespace ZanSAX
