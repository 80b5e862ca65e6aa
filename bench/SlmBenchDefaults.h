#pragma once
// The SLM bench rows' writer defaults, shared by the format rows and the codec row.
#include <cstdint>
#include <string>

#include "contracts/PersistentProperties.h"

// What a source of the shared build lacks for an SLM writer: its model and build styles.
inline PersistentProperties SlmDefaults()
{
    PersistentProperties defaults;
    defaults.SetValue(L"PartID", std::int32_t{1});
    defaults.SetValue(L"IsSupport", false);
    defaults.SetValue(L"IsVolumeSupport", false);
    IndexedProperties<PersistentProperties> styles;
    for (std::int32_t id = 0; id < 4; ++id)
    {
        PersistentProperties& style = styles.Add();
        style.SetValue(L"SLMBuildStyleID", id);
        style.SetValue(L"PointDistance", std::int32_t{70});
        style.SetValue(L"ExposureTime", std::int32_t{80});
        style.SetValue(L"LaserFocus", 0.0);
        style.SetValue(L"LaserPower", 200.0);
        style.SetValue(L"LaserSpeed", 1000.0);
        style.SetValue(L"LaserPowerFactor", 1.0);
        style.SetValue(L"LaserSpeedFactor", 1.0);
        style.SetValue(L"LaserIndex", std::int32_t{1});
        style.SetValue(L"SLMBuildStyleName", std::wstring(L"Hatch"));
    }
    defaults.SetValue(L"SLMBuildStyles", styles);
    return defaults;
}
