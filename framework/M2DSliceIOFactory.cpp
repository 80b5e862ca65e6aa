#include "M2DSliceIOFactory.h"

#include "../formats/cli/M2DSliceIO_cli.h"

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
// A format joins the table with one case here once it is part of the library; until then
// its codes give null like the gaps.
I2DSliceIO* CreateSliceIO(short code)
{
    switch (code)
    {
    case 0:
    case 8:
    case 9:
    case 36:
        return NewCli(M2DSliceIO_cli::Long);
    case 35:
        return NewCli(M2DSliceIO_cli::Short);
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
