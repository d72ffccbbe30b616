// The figures as Prometheus reads them.
#include "hub/web/metrics.h"

#include <gmock/gmock.h>

#include <set>
#include <sstream>
#include <string>

#include "tests/hub/support/scripted_hub.h"

namespace lumora_hub::web {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST(HistogramTest, CountsUpToEachBound) {
    Histogram histogram;
    histogram.Add(std::chrono::microseconds(100));  // a bound belongs to its bucket
    histogram.Add(std::chrono::microseconds(101));
    histogram.Add(std::chrono::seconds(10));
    std::string text;
    histogram.Print("x", "help", text);
    EXPECT_THAT(text,
                HasSubstr("# TYPE x histogram\nx_bucket{le=\"0.0001\"} 1\nx_bucket{le=\"0.00025\"} 2\n"));
    EXPECT_THAT(text,
                HasSubstr("x_bucket{le=\"2.5\"} 2\nx_bucket{le=\"+Inf\"} 3\nx_sum 10.000201\nx_count 3\n"));
}

TEST(LabelTextTest, EscapesWhatWouldEndTheLabel) { EXPECT_EQ(R"(a\"b\\c\nd)", LabelText("a\"b\\c\nd")); }

TEST(LabelTextTest, HasNoControlCharacters) {
    EXPECT_EQ("\xEF\xBF\xBD[31m\xEF\xBF\xBD\xEF\xBF\xBD", LabelText(std::string("\x1B[31m\0\x7F", 7)));
}

TEST(MetricsTextTest, HasDevicesServicesQueuesAndReplies) {
    lumora_hub_test::ScriptedHub hub;
    DeviceState device = lumora_hub_test::MakeDevice("a", "1", {"s\"x"});
    device.channel = ChannelState::CONNECTED;
    hub.Appear(device);
    hub.Appear(lumora_hub_test::MakeDevice("b", "1", {}));
    hub.Leave("b@1");
    const auto consumer = std::make_shared<Consumer>("web", QueueLimits{2}, nullptr);
    const auto registration = hub.Subscribe("a@1", "s\"x", consumer);
    for (int count = 0; count < 3; ++count) {
        hub.Send("a@1", "s\"x", "12345");
    }
    WebCounts counts;
    counts.replies[200] = 4;
    counts.lostOfEnded = 5;
    const std::string text = MetricsText(hub, counts, 1,
                                         {{"lumora_hub_x_total", Figure::Kind::COUNTER, "A count.", 7},
                                          {"lumora_hub_y", Figure::Kind::GAUGE, "A state.", 0}});
    for (const char* const line : {
             "lumora_hub_devices{state=\"present\"} 1\n",
             "lumora_hub_devices{state=\"absent\"} 1\n",
             "lumora_hub_channels{state=\"connected\"} 1\n",
             "lumora_hub_blocks_total{device=\"a@1\",service=\"s\\\"x\"} 3\n",
             "lumora_hub_bytes_total{device=\"a@1\",service=\"s\\\"x\"} 15\n",
             "lumora_hub_queue_blocks{device=\"a@1\",service=\"s\\\"x\"} 2\n",
             "lumora_hub_queue_bytes{device=\"a@1\",service=\"s\\\"x\"} 10\n",
             "lumora_hub_queue_lost_blocks{device=\"a@1\",service=\"s\\\"x\"} 1\n",
             "lumora_hub_address_refused_total{what=\"node\"} 1\n",
             "lumora_hub_address_refused_total{what=\"device\"} 2\n",
             "lumora_hub_address_refused_total{what=\"channel\"} 3\n",
             "lumora_hub_http_replies_total{status=\"200\"} 4\n",
             "lumora_hub_web_lost_blocks_total 6\n",
             "# HELP lumora_hub_x_total A count.\n# TYPE lumora_hub_x_total counter\nlumora_hub_x_total 7\n",
             "# HELP lumora_hub_y A state.\n# TYPE lumora_hub_y gauge\nlumora_hub_y 0\n",
         }) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    EXPECT_THAT(text, Not(HasSubstr("\n\n")));
}

TEST(MetricsTextTest, NoSeriesIsThereTwiceWhateverDevicesAreCalled) {
    lumora_hub_test::ScriptedHub hub;
    hub.Appear(lumora_hub_test::MakeDevice("a", "1", {"s", "s", "\xFF", "\xFE"}));
    hub.Appear(lumora_hub_test::MakeDevice("b\xFF", "1", {"s"}));
    hub.Appear(lumora_hub_test::MakeDevice("b\xFE", "1", {"s"}));
    std::istringstream lines(MetricsText(hub, {}, 0, {}));
    std::set<std::string> series;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line[0] == '#' || series.insert(line.substr(0, line.rfind(' '))).second) << line;
    }
    EXPECT_EQ(1U, series.count("lumora_hub_blocks_total{device=\"a@1\",service=\"s\"}"));
}

}  // namespace
}  // namespace lumora_hub::web
