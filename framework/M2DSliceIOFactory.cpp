#include "M2DSliceIOFactory.h"

// Each family includes its headers in its own block.
#include "../formats/cli/M2DSliceIO_cli.h"

// legacy
#include "../formats/legacy/M2DSliceIO_fs.h"
#include "../formats/legacy/M2DSliceIO_slc.h"
#include "../formats/legacy/M2DSliceIO_sli_3ds.h"
#include "../formats/legacy/M2DSliceIO_ssl.h"

// zff
#include "../formats/zff/M2DSliceIO_zff.h"

// sectioned
#include "../formats/sectioned/M2DSliceIO_mtt.h"
#include "../formats/sectioned/M2DSliceIO_slm.h"

// clf
#include "../formats/clf/M2DSliceIO_clf.h"

// gcode
#include "../formats/gcode/M2DSliceIO_gcode.h"

// wza
#include "../formats/wza/M2DSliceIO_wza.h"

// jm
#include "../formats/cli/M2DSliceIO_cli_ascii.h"
#include "../formats/jm/M2DSliceIO_jm.h"

namespace {

I2DSliceIO* NewCli(M2DSliceIO_cli::CoordinatesType type)
{
    auto* io = new M2DSliceIO_cli();
    io->SetCoordinatesType(type);
    io->SetHatched(false);
    return io;
}

} // namespace

namespace M2DSliceIOFactory {

// Codes are persisted by callers: a code never changes its meaning, and a gap stays a gap.
// A format joins the table with its cases here once it is part of the library; until then
// its codes give null like the gaps. Each family keeps to its own block below.
I2DSliceIO* CreateSliceIO(short code)
{
    switch (code)
    {
    // Common Layer Interface
    case 0:
    case 8:
    case 9:
    case 36:
        return NewCli(M2DSliceIO_cli::Long);
    case 35:
        return NewCli(M2DSliceIO_cli::Short);

    // SLI (3), SLC (4), SSL (5), F&S (6)
    case 3:
        return new M2DSliceIO_sli_3ds();
    case 4:
        return new M2DSliceIO_slc();
    case 5:
        return new M2DSliceIO_ssl();
    case 6:
        return new M2DSliceIO_fs();

    // ZFF (44, 45, 46)
    case 44:
    case 45:
    case 46: {
        auto* io = new M2DSliceIO_zff();
        io->SetHatched(true);
        return io;
    }

    // SLM (47), compressed SLM build file (48), MTT (51)
    case 47:
        return new M2DSliceIO_slm(false);
    case 48:
        return new M2DSliceIO_slm(true);
    case 51:
        return new M2DSliceIO_mtt(false);

    // CLF (49)
    case 49:
        return new M2DSliceIO_clf();

    // G-code (50)
    case 50:
        return new M2DSliceIO_gcode();

    // WZA (54)
    case 54:
        return new M2DSliceIO_wza();

    // JM (55), ASCII CLI (56)
    case 55:
        return new M2DSliceIO_jm();
    case 56:
        return new M2DSliceIO_cli_ascii();

    default:
        return nullptr;
    }
}

std::shared_ptr<I2DSliceIO> GetSliceIO(short code)
{
    // Owns null for an unknown code, with a control block all the same.
    return std::shared_ptr<I2DSliceIO>(CreateSliceIO(code));
}

} // namespace M2DSliceIOFactory
