#include <cfloat>

#include "framework/I2DSliceIO.h"
#include "tests/TestSupport.h"

namespace {

using ts::Points;

Points Simplify(const Points& points, bool closed = true, double maxError = 5.0)
{
    M2DSliceContourLayer layer;
    M2DSliceContour* contour = ts::AddContour(layer, points, closed);
    I2DSliceIO::SimplifyContour(*contour, maxError, DBL_MAX);
    return ts::PointsOf(*contour);
}

TEST(I2DSliceIOSimplifyContour, RemovesCollinearAndCoincidentPointsOnly)
{
    const Points square{{0, 0}, {100, 0}, {100, 100}, {0, 100}};
    EXPECT_EQ(Simplify(square), square);
    EXPECT_EQ(Simplify({{0, 0}, {50, 0}, {100, 0}, {100, 100}, {0, 100}}), square);
    EXPECT_EQ(Simplify({{0, 0}, {100, 0}, {100, 0}, {100, 100}, {0, 100}}), square);
    // A point off the chord by less than the tolerance goes, one further off stays.
    EXPECT_EQ(Simplify({{0, 0}, {50, 4}, {100, 0}, {100, 100}, {0, 100}}), square);
    EXPECT_EQ(Simplify({{0, 0}, {50, 5}, {100, 0}, {100, 100}, {0, 100}}).size(), 5u);
    // A point beyond the end of its chord is not on it.
    EXPECT_EQ(Simplify({{0, 0}, {200, 0}, {100, 0}, {100, 100}, {0, 100}}).size(), 5u);
    EXPECT_TRUE(Simplify({}).empty());
}

TEST(I2DSliceIOSimplifyContour, KeepsTheEndsOfOpenContours)
{
    EXPECT_EQ(Simplify({{0, 0}, {50, 1}, {100, 0}, {150, 2}}, false), (Points{{0, 0}, {150, 2}}));
    // A closed contour is thinned down to two points; the reader then drops it.
    EXPECT_EQ(Simplify({{0, 0}, {50, 0}, {100, 0}}, true), (Points{{0, 0}, {100, 0}}));
    EXPECT_EQ(Simplify({{0, 0}, {0, 0}}, false).size(), 2u); // under three points: untouched
}

TEST(I2DSliceIOSimplifyContour, AccumulatedErrorStopsFurtherRemovals)
{
    // Alone, (2000, 0) lies 2.7 off the chord and would go; after (1000, 3) went with an
    // error of 3 beside it, 3 + 2.7 passes the tolerance and it stays.
    const Points wavy{{0, 0}, {1000, 3}, {2000, 0}, {3000, 4}, {4000, 0}, {4000, 4000}, {0, 4000}};
    EXPECT_EQ(Simplify(wavy), (Points{{0, 0}, {2000, 0}, {4000, 0}, {4000, 4000}, {0, 4000}}));
    EXPECT_EQ(Simplify({{0, 0}, {2000, 0}, {3000, 4}, {4000, 0}, {4000, 4000}, {0, 4000}}),
              (Points{{0, 0}, {3000, 4}, {4000, 0}, {4000, 4000}, {0, 4000}}));
    // With a wide tolerance the whole edge goes.
    EXPECT_EQ(Simplify(wavy, true, 100.0), (Points{{0, 0}, {4000, 0}, {4000, 4000}, {0, 4000}}));
}

} // namespace
