// Where faces leave what they count.
#include "hub/core/figures.h"

#include <gtest/gtest.h>

namespace {

using lumora_hub::Figure;
using lumora_hub::FigureBoard;

Figure Named(const std::string& name, std::uint64_t value) {
    return {name, Figure::Kind::GAUGE, "A figure.", value};
}

TEST(FigureBoardTest, HasTheLatestFiguresOfEachOwner) {
    FigureBoard board;
    EXPECT_TRUE(board.All().empty());
    board.Put("b", {Named("b_one", 1)});
    board.Put("a", {Named("a_one", 2), Named("a_two", 3)});
    board.Put("b", {Named("b_one", 4)});
    const std::vector<Figure> all = board.All();
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].name, "a_one");
    EXPECT_EQ(all[1].value, 3U);
    EXPECT_EQ(all[2].value, 4U);
}

}  // namespace
