#include "Backoff.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace std::chrono_literals;

std::vector<long> pauses(Backoff& backoff, int count)
{
    std::vector<long> taken;
    for (int i = 0; i < count; ++i)
        taken.push_back(static_cast<long>(backoff.next().count()));
    return taken;
}

TEST(Backoff, DoublesUpToTheLongestAfterTheFreeRetriesAndStartsOverOnReset)
{
    Backoff plain(100ms, 1000ms);
    EXPECT_EQ(pauses(plain, 6), (std::vector<long>{100, 200, 400, 800, 1000, 1000}));

    Backoff oneFree(100ms, 1000ms, 1);
    EXPECT_EQ(pauses(oneFree, 4), (std::vector<long>{0, 100, 200, 400}));
    oneFree.reset();
    EXPECT_EQ(pauses(oneFree, 3), (std::vector<long>{0, 100, 200}));

    // A first pause above the ceiling, or none at all, never exceeds or escapes it.
    Backoff capped(2000ms, 1000ms);
    EXPECT_EQ(pauses(capped, 2), (std::vector<long>{1000, 1000}));
    Backoff none(0ms, 0ms);
    EXPECT_EQ(pauses(none, 3), (std::vector<long>{0, 0, 0}));
}

} // namespace
