#include "ZffMetaData.h"

ZffVectorAttributes::ZffVectorAttributes()
{
    for (std::uint16_t id : {LaserPower, LaserSpeed, LaserFocus, PartID})
        _attributes[id] = ZffVectorAttribute();
}
