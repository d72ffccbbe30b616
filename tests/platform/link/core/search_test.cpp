#include "platform/link/core/search.h"

#include <gmock/gmock.h>

namespace lumora_link::test {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

NodeDescription Camera(std::uint64_t id) { return {{id, 1}, {htonl(0x0a000001), 4000}, "camera"}; }

Search::Knowledge Expecting(std::set<std::uint64_t> nodes) { return {std::move(nodes), false, false}; }

struct SearchTest : testing::Test {
    // Lets the time pass as the node does it; returns when the probes left.
    std::vector<int> Run(Search& search, const std::function<void(unsigned)>& onProbe = {}) {
        std::vector<int> times;
        for (;;) {
            while (const auto probe = search.TakeDueProbe(now)) {
                times.push_back(SinceStart());
                if (onProbe) {
                    onProbe(*probe);
                }
            }
            if (search.IsOver(now)) {
                return times;
            }
            const TimePoint next = search.NextDeadline(now);
            EXPECT_GT(next, now) << "it would wait without an end";
            now = next;
        }
    }
    int SinceStart() const {
        return static_cast<int>(std::chrono::duration_cast<Milliseconds>(now - start).count());
    }

    const TimePoint start{std::chrono::hours(1)};
    TimePoint now = start;
};

}  // namespace

TEST_F(SearchTest, EndsEarlyWhenEveryDeviceAnswersEverything) {
    Search search("camera", {}, now);
    const std::vector<int> probes =
        Run(search, [&](unsigned probe) { search.OnAnswer(probe, Camera(1), std::nullopt, now); });
    EXPECT_THAT(probes, ElementsAre(0, 10, 100, 130));
    EXPECT_EQ(SinceStart(), 230);
    EXPECT_EQ(search.Found(), 1U);
}

TEST_F(SearchTest, AsksToTheEndWhenNothingAnswers) {
    Search search("camera", {}, now);
    EXPECT_THAT(Run(search), ElementsAre(0, 10, 100, 130, 300, 350, 400, 450, 500));
    EXPECT_EQ(SinceStart(), 600);
}

TEST_F(SearchTest, OverdueProbesLeaveOneByOneAndTheLastOneIsWaitedFor) {
    Search search("camera", {}, now);
    EXPECT_EQ(search.TakeDueProbe(now), 0U);
    now += Milliseconds(590);
    EXPECT_THAT(Run(search), ElementsAre(590, 620, 650, 680, 710, 740, 770, 800));
    EXPECT_EQ(SinceStart(), 900);
}

TEST_F(SearchTest, WhileDevicesTurnUpItGoesOnForASecondAtMost) {
    Search search("camera", {}, now);
    Run(search);
    EXPECT_EQ(SinceStart(), 600);
    for (std::uint64_t id = 1; id < 100 && SinceStart() < 1000; ++id) {
        search.OnAnswer(1, Camera(id), std::nullopt, now);
        EXPECT_FALSE(search.IsOver(now));
        now = std::min(now + Milliseconds(90), start + Search::LONGEST_ON_A_BUSY_HOST);
    }
    EXPECT_TRUE(search.IsOver(now));
}

TEST_F(SearchTest, AMissingAnswerTellsThatDatagramsGetLost) {
    Search search("camera", {}, now);
    Run(search, [&](unsigned probe) {
        if (probe != 2) {
            search.OnAnswer(probe, Camera(1), std::nullopt, now);
        }
    });
    EXPECT_EQ(SinceStart(), 600);
}

TEST_F(SearchTest, AnExpectedNodeIsWaitedFor) {
    Search search("camera", Expecting({1, 2}), now);
    const std::vector<int> probes =
        Run(search, [&](unsigned probe) { search.OnAnswer(probe, Camera(1), std::nullopt, now); });
    EXPECT_EQ(SinceStart(), 600);
    EXPECT_THAT(probes, SizeIs(9));
    EXPECT_THAT(search.Missing(), ElementsAre(2));
}

TEST_F(SearchTest, OnlyTheRescueNamesWhatIsKnown) {
    Search search("camera", {}, now);
    search.TakeDueProbe(now);
    search.OnAnswer(0, Camera(1), std::nullopt, now);
    EXPECT_THAT(search.Named(3), IsEmpty());
    EXPECT_THAT(search.Named(4), ElementsAre(HintOf(1)));
}

TEST_F(SearchTest, NodesThatACountTellsOfAreAskedOftener) {
    Search search("camera", {}, now);
    std::map<int, std::vector<NodeHint>> named;
    Run(search, [&](unsigned probe) {
        named[SinceStart()] = search.Named(probe);
        if (named[SinceStart()].empty()) {
            search.OnAnswer(probe, Camera(1), 2, now);
        }
        if (SinceStart() == 40) {
            search.OnAnswer(probe, Camera(2), 2, now);
        }
    });
    EXPECT_THAT(named.at(40), ElementsAre(HintOf(1)));
    EXPECT_EQ(named.count(165), 0U) << "none is missing any more";
    EXPECT_EQ(search.Found(), 2U);
    EXPECT_EQ(SinceStart(), 600) << "the second node has not answered everything";
}

TEST_F(SearchTest, TakesNoAnswerOfAnotherTypeOrToAProbeThatWasNotSent) {
    Search search("camera", {}, now);
    search.TakeDueProbe(now);
    NodeDescription other = Camera(1);
    other.deviceType = "camera2";
    search.OnAnswer(0, other, std::nullopt, now);
    search.OnAnswer(1, Camera(2), std::nullopt, now);
    EXPECT_EQ(search.Found(), 0U);
}

}  // namespace lumora_link::test
