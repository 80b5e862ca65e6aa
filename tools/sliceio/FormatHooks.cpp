#include "FormatHooks.h"

namespace sliceio {

namespace {

std::vector<const FormatHooks*>& Storage()
{
    static std::vector<const FormatHooks*> hooks;
    return hooks;
}

} // namespace

bool RegisterFormatHooks(const FormatHooks& hooks)
{
    Storage().push_back(&hooks);
    return true;
}

const FormatHooks* FindFormatHooks(const std::string& family)
{
    for (const FormatHooks* hooks : Storage())
        if (family == hooks->Family)
            return hooks;
    return nullptr;
}

const std::vector<const FormatHooks*>& AllFormatHooks() { return Storage(); }

} // namespace sliceio
