#include <gtest/gtest.h>

#include <memory>

#include "formats/cli/M2DSliceIO_cli.h"
#include "framework/M2DSliceIOFactory.h"

TEST(M2DSliceIOFactory, CliCodesAndGaps)
{
    for (short code : {0, 8, 9, 36, 35})
    {
        std::unique_ptr<I2DSliceIO> io(M2DSliceIOFactory::CreateSliceIO(code));
        const auto* cli = dynamic_cast<M2DSliceIO_cli*>(io.get());
        ASSERT_NE(cli, nullptr) << code;
        EXPECT_EQ(cli->GetCoordinatesType(), code == 35 ? M2DSliceIO_cli::Short : M2DSliceIO_cli::Long) << code;
        EXPECT_FALSE(cli->GetHatched());
        EXPECT_EQ(io->GetFileType(), 0) << "the factory does not store the code";
    }
    // Gaps of the table and codes outside it.
    for (short code : {1, 2, 7, 10, 34, 37, 43, 52, 53, 57, -1, 32767})
        EXPECT_EQ(M2DSliceIOFactory::CreateSliceIO(code), nullptr) << code;

    const std::shared_ptr<I2DSliceIO> none = M2DSliceIOFactory::GetSliceIO(52);
    EXPECT_EQ(none.get(), nullptr);
    EXPECT_EQ(none.use_count(), 1); // owns null, with a control block all the same
    EXPECT_NE(dynamic_cast<M2DSliceIO_cli*>(M2DSliceIOFactory::GetSliceIO(35).get()), nullptr);
}
