#include <ovra/extra/internal/LineRing.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace ovra::extra {
namespace {

std::string dumpOf(LineRing const& ring) {
    int const file = memfd_create("dump", MFD_CLOEXEC);
    EXPECT_TRUE(ring.writeTo(file));
    std::string text(4096, '\0');
    text.resize(static_cast<std::size_t>(pread(file, text.data(), text.size(), 0)));
    close(file);
    return text;
}

TEST(LineRingTest, GoesOnWhereTicketsBeginAgain) {
    for (std::size_t const lines : {1u, 2u, 3u, 7u}) {
        std::size_t const last = LineRing::mostTickets(lines);
        EXPECT_GT(last, std::size_t{1} << 26);
        EXPECT_EQ(last % lines, 0u);
        for (std::size_t before = 0; before <= 3 * lines; ++before) {
            LineRing ring(lines, 20, last - before);
            std::vector<std::string> kept;
            for (std::size_t line = 0; line < 6 * lines; ++line) {
                kept.push_back(std::to_string(line) + "\n");
                ring.keep(std::to_string(line).c_str());
                std::string expected;
                for (std::size_t i = kept.size() - std::min(kept.size(), lines); i < kept.size();
                     ++i) {
                    expected += kept[i];
                }
                ASSERT_EQ(dumpOf(ring), expected) << lines << " lines, " << before << " before";
            }
        }
    }
}

TEST(LineRingTest, OfTwoTicketsTheLaterIsTheOneHandedOutAfterTheOther) {
    LineRing const ring(3, 20);
    std::size_t const all = LineRing::mostTickets(3);
    std::size_t const half = all / 2;
    struct {
        std::size_t earlier, later;
    } const pairs[] = {{1, 2},       {1, half},       {half, all - 1}, {all - 1, all}, {all, 1},
                       {all - 1, 1}, {all, half - 1}, {half + 2, 1},   {2, half + 1}};
    for (auto const& [earlier, later] : pairs) {
        EXPECT_TRUE(ring.isLater(later, earlier)) << later << " after " << earlier;
        EXPECT_FALSE(ring.isLater(earlier, later)) << earlier << " after " << later;
        EXPECT_FALSE(ring.isLater(later, later)) << later;
    }
}

}  // namespace
}  // namespace ovra::extra
