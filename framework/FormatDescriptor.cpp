#include "FormatDescriptor.h"

#include <algorithm>
#include <sstream>

namespace {

std::vector<const FormatDescriptor*>& Storage()
{
    static std::vector<const FormatDescriptor*> families;
    return families;
}

} // namespace

const FormatCodeRow* FormatDescriptor::Row(short code) const
{
    for (const FormatCodeRow& row : Codes)
        if (row.Code == code)
            return &row;
    return nullptr;
}

namespace FormatRegistry {

const std::vector<const FormatDescriptor*>& Families() { return Storage(); }

void Register(const FormatDescriptor* descriptor)
{
    std::vector<const FormatDescriptor*>& families = Storage();
    if (std::find(families.begin(), families.end(), descriptor) == families.end())
        families.push_back(descriptor);
}

std::vector<FormatCodeRow> Codes()
{
    std::vector<FormatCodeRow> rows;
    for (const FormatDescriptor* family : Storage())
        rows.insert(rows.end(), family->Codes.begin(), family->Codes.end());
    std::stable_sort(rows.begin(), rows.end(), [](const FormatCodeRow& a, const FormatCodeRow& b) { return a.Code < b.Code; });
    return rows;
}

const FormatDescriptor* ForCode(short code)
{
    for (const FormatDescriptor* family : Storage())
        if (family->Row(code))
            return family;
    return nullptr;
}

const FormatCodeRow* RowFor(short code)
{
    const FormatDescriptor* family = ForCode(code);
    return family ? family->Row(code) : nullptr;
}

bool Sniff(const unsigned char* head, std::size_t size, short& code)
{
    bool found = false;
    std::size_t best = SIZE_MAX;
    for (const FormatDescriptor* family : Storage())
    {
        short c = -1;
        std::size_t at = SIZE_MAX;
        if (family->Sniff && family->Sniff(head, std::min(size, kSniffBytes), c, at) && at < best)
        {
            best = at;
            code = c;
            found = true;
        }
    }
    return found;
}

const FormatCodeRow* ForExtension(const std::string& extension)
{
    if (extension.empty())
        return nullptr;
    const FormatCodeRow* first = nullptr;
    for (const FormatDescriptor* family : Storage())
        for (const FormatCodeRow& row : family->Codes)
        {
            std::istringstream list(row.Extensions);
            std::string item;
            while (list >> item)
                if (item == extension && (!first || row.Code < first->Code))
                    first = &row;
        }
    return first;
}

} // namespace FormatRegistry
