// Several handles of one process, by real sockets on the loopback interface.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <memory>
#include <set>
#include <thread>

#include "base/unique_fd.h"
#include "platform/link/wire/coap_message.h"
#include "platform/link/wire/messages.h"
#include "tests/platform/link/capi/test_node.h"
#include "tests/platform/link/io/raw_coap_peer.h"
#include "tests/support/eventually.h"

namespace lumora_link::test {

namespace {

using lumora_test::Eventually;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string LONGEST(1023, 'x');

std::string EveryByte() {
    std::string text;
    for (int byte = 1; byte < 256; ++byte) {
        text.push_back(static_cast<char>(byte));
    }
    return text;
}

milliseconds TimeOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

std::set<int> InheritedDescriptors() {
    std::set<int> inherited;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        const int flags = fcntl(fd, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) {
            inherited.insert(fd);
        }
    }
    return inherited;
}

// One asking node and one device, found.
struct LinkNodeTest : testing::Test {
    void Start() {
        ASSERT_TRUE(asker.Start());
        ASSERT_TRUE(device.Start());
        found = std::make_unique<Found>(asker, "camera");
        ASSERT_EQ(found->Size(), 1U);
        proxy = found->At(0);
    }

    TestNode asker{"reader"};
    TestNode device{"camera"};
    std::unique_ptr<Found> found;
    AppResourceProxy* proxy = nullptr;
};

std::vector<std::string> Sorted(std::vector<std::string> endpoints) {
    const auto port = [](const std::string& endpoint) {
        return std::stoi(endpoint.substr(endpoint.find(':') + 1));
    };
    std::sort(endpoints.begin(), endpoints.end(),
              [&](const std::string& a, const std::string& b) { return port(a) < port(b); });
    return endpoints;
}

}  // namespace

TEST(LinkSearchTest, FindsExactlyTheMatchingTypesInOrderAndNotItself) {
    std::vector<std::unique_ptr<TestNode>> nodes;
    for (const char* type : {"camera", "camera", "camera", "camer", "camera2", "Camera", ""}) {
        nodes.push_back(std::make_unique<TestNode>(type));
        ASSERT_TRUE(nodes.back()->Start());
    }
    Found found(*nodes[0], "camera");
    EXPECT_EQ(found.Size(), 2U);
    EXPECT_EQ(found.Endpoints(), Sorted(found.Endpoints()));
    EXPECT_EQ(Found(*nodes[3], "camera").Size(), 3U);
    EXPECT_EQ(Found(*nodes[3], "").Size(), 1U);
    EXPECT_EQ(Found(*nodes[3], "nobody").Size(), 0U);
}

TEST(LinkSearchTest, ReturnsWithinThreeHundredMillisecondsWhenAllAnswerAtOnce) {
    TestNode asker("reader");
    TestNode device("camera");
    ASSERT_TRUE(asker.Start());
    ASSERT_TRUE(device.Start());
    // A busy machine may delay an answer and make one search go on; not every one.
    EXPECT_TRUE(Eventually([&] {
        const Found found(asker, "camera");
        return found.Size() == 1 && found.Time() <= milliseconds(300);
    }));
}

TEST(LinkSearchTest, FindsTypesOfAnyBytesAndLength) {
    TestNode asker("reader");
    ASSERT_TRUE(asker.Start());
    for (const std::string& type : {EveryByte(), LONGEST, std::string(253, 'a')}) {
        TestNode device(type);
        ASSERT_TRUE(device.Start());
        EXPECT_EQ(Found(asker, type).Size(), 1U);
    }
}

TEST(LinkSearchTest, ATypeThatIsTooLongIsRefused) {
    TestNode node(LONGEST + "x");
    LinkPlatform* platform = node.Platform();
    EXPECT_EQ(platform->Init(platform), 0);
    EXPECT_EQ(platform->RegisterResource(platform, node.Resource(), node.EventFunction()), -1);
}

TEST_F(LinkNodeTest, EveryMethodReachesItsHandlerAndOnlyGetHasAReply) {
    device.handler = [](const Request& request, std::string& reply) {
        reply = "reply to " + request.value;
        return 0;
    };
    Start();
    EXPECT_EQ(Get(proxy, "k1", "v1").text, "reply to v1");
    EXPECT_EQ(Put(proxy, "k2", "v2"), 0);
    EXPECT_EQ(Post(proxy, "k3", "v3"), 0);
    EXPECT_EQ(Delete(proxy, "k4", "v4"), 0);
    EXPECT_THAT(device.Requests(),
                ElementsAre(Request{"GET", "", "k1", "v1"}, Request{"PUT", "", "k2", "v2"},
                            Request{"POST", "", "k3", "v3"}, Request{"DELETE", "", "k4", "v4"}));
}

TEST_F(LinkNodeTest, KeysAndValuesOfEveryLengthAndAnyBytesArrive) {
    Start();
    for (const std::string& key :
         {std::string(), std::string("k"), EveryByte(), LONGEST, std::string("..")}) {
        for (const std::string& value :
             {std::string(), std::string("v"), EveryByte(), std::string(1022, '\xff'), LONGEST}) {
            const GetResult got = Get(proxy, key, value);
            EXPECT_EQ(got.result, 0);
            EXPECT_EQ(got.text, value);
            EXPECT_EQ(Put(proxy, key, value), 0);
            EXPECT_EQ(device.Requests().back(), (Request{"PUT", "", key, value}));
        }
    }
}

TEST_F(LinkNodeTest, TextsBeyondTheLimitAreNotSent) {
    Start();
    EXPECT_NE(Put(proxy, "key", LONGEST + "x"), 0);
    EXPECT_NE(Put(proxy, LONGEST + "x", "value"), 0);
    EXPECT_NE(proxy->Put(proxy, nullptr, "v", 1), 0);
    EXPECT_NE(proxy->Put(proxy, "k", nullptr, 1), 0);
    EXPECT_EQ(proxy->Put(proxy, "k", nullptr, 0), 0);
    EXPECT_THAT(device.Requests(), SizeIs(1));
}

TEST_F(LinkNodeTest, AReplyThatDoesNotFitTheCallersBufferIsAFailure) {
    device.handler = [](const Request&, std::string& reply) {
        reply = "12345";
        return 0;
    };
    Start();
    char buffer[8] = {};
    EXPECT_EQ(proxy->Get(proxy, "key", buffer, 5), 0);
    EXPECT_STREQ(buffer, "12345");
    char small[8] = "old";
    EXPECT_NE(proxy->Get(proxy, "key", small, 4), 0);
    EXPECT_STREQ(small, "old");
}

TEST_F(LinkNodeTest, ARefusingHandlerFailsTheRequest) {
    device.handler = [](const Request&, std::string&) { return -1; };
    Start();
    EXPECT_NE(Get(proxy, "key", "value").result, 0);
    EXPECT_NE(Post(proxy, "key", "value"), 0);
}

TEST_F(LinkNodeTest, ARecordWithoutHandlersRefusesAndAChangedRecordChangesNothing) {
    ASSERT_TRUE(asker.Start());
    LinkPlatform* platform = device.Platform();
    ASSERT_EQ(platform->Init(platform), 0);
    device.Resource()->DoPOST = nullptr;
    ASSERT_EQ(platform->RegisterResource(platform, device.Resource(), nullptr), 0);
    device.Resource()->DoGET = nullptr;
    device.Resource()->DoGetDescriptor = nullptr;
    ASSERT_EQ(platform->Run(platform), 0);
    Found devices(asker, "camera");
    ASSERT_EQ(devices.Size(), 1U);
    EXPECT_NE(Post(devices.At(0), "key", "value"), 0);
    EXPECT_EQ(Get(devices.At(0), "key", "value").result, 0);
}

TEST_F(LinkNodeTest, TheRequesterIsNamedAsItIsFound) {
    Start();
    ASSERT_EQ(Put(proxy, "key", "value"), 0);
    Found askers(device, "reader");
    EXPECT_THAT(askers.Endpoints(), ElementsAre(device.Requests().at(0).requester));
    ASSERT_TRUE(Eventually([&] { return !device.Events().empty(); }));
    EXPECT_EQ(device.Events().at(0).endpoint, device.Requests().at(0).requester);
}

TEST_F(LinkNodeTest, AHandlerMayTakeSeconds) {
    device.handler = [](const Request&, std::string&) {
        std::this_thread::sleep_for(seconds(4));
        return 0;
    };
    Start();
    EXPECT_EQ(Get(proxy, "key", "value").text, "value");
    EXPECT_THAT(device.Requests(), SizeIs(1));
}

TEST_F(LinkNodeTest, AHandlerMayAskAnotherNodeAndSearch) {
    TestNode third("printer");
    ASSERT_TRUE(third.Start());
    device.handler = [&](const Request& request, std::string& reply) {
        Found printers(device, "printer");
        if (printers.Size() == 1) {
            reply = Get(printers.At(0), request.key, "asked by the handler").text;
        }
        return 0;
    };
    Start();
    EXPECT_EQ(Get(proxy, "key", "").text, "asked by the handler");
}

TEST_F(LinkNodeTest, ANodeServesAndIsAnnouncedWhileItsOwnRequestWaits) {
    // What a module does that holds its lock while it waits for the very process it is in.
    std::promise<void> inside;
    device.handler = [&](const Request& request, std::string&) {
        if (request.key == "outer") {
            inside.set_value();
            Found readers(device, "reader");
            return readers.Size() == 1 ? Put(readers.At(0), "inner", "") : -1;
        }
        return 0;
    };
    Start();
    auto outer = std::async(std::launch::async, [&] { return Put(proxy, "outer", ""); });
    inside.get_future().wait();
    TestNode late("printer");
    ASSERT_TRUE(late.Start());
    EXPECT_EQ(outer.get(), 0);
    EXPECT_THAT(asker.Requests(), ElementsAre(Request{"PUT", "", "inner", ""}));
}

TEST_F(LinkNodeTest, ADatagramThatComesTwiceRunsOnceAndIsAnsweredTwice) {
    Start();
    RawPeer peer(proxy);
    for (int count = 0; count < 3; ++count) {
        peer.Send(RawPost("key", "value"));
        const auto answer = peer.Receive();
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->type, MessageType::Acknowledgement);
        EXPECT_EQ(answer->code, code::CHANGED);
        EXPECT_EQ(answer->messageId, 77);
        EXPECT_EQ(answer->token, "raw");
    }
    EXPECT_THAT(device.Requests(), ElementsAre(Request{"POST", "", "key", "value"}));
}

// libcoap reads no more than 1,472 bytes of a datagram: what is cut off must not be missing silently.
TEST_F(LinkNodeTest, ADatagramThatIsCutIsRefused) {
    Start();
    RawPeer peer(proxy);
    const std::string key(600, 'k');
    for (const std::size_t length : {std::size_t{1000}, std::size_t{1023}}) {
        peer.Send(RawPost(key, std::string(length, 'v')));
        const auto answer = peer.Receive();
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->code, code::TOO_LARGE);
        EXPECT_EQ(answer->token, "raw");
    }
    EXPECT_THAT(device.Requests(), IsEmpty());
    peer.Send(RawPost(key, std::string(800, 'v')));
    EXPECT_EQ(peer.Receive()->code, code::CHANGED);
    EXPECT_THAT(device.Requests(), ElementsAre(Request{"POST", "", key, std::string(800, 'v')}));
}

TEST_F(LinkNodeTest, ASlowRequestIsAcknowledgedFirstAndRunsOnceToo) {
    std::promise<void> release;
    auto released = release.get_future().share();
    device.handler = [released](const Request&, std::string&) {
        released.wait();
        return 0;
    };
    Start();
    RawPeer peer(proxy);
    for (int count = 0; count < 2; ++count) {
        peer.Send(RawPost("key", "value"));
        const auto acknowledgement = peer.Receive();
        ASSERT_TRUE(acknowledgement);
        EXPECT_EQ(acknowledgement->type, MessageType::Acknowledgement);
        EXPECT_EQ(acknowledgement->code, code::EMPTY);
    }
    release.set_value();
    const auto answer = peer.Receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->type, MessageType::Confirmable);
    EXPECT_EQ(answer->code, code::CHANGED);
    EXPECT_EQ(answer->token, "raw");
    EXPECT_THAT(device.Requests(), SizeIs(1));
}

TEST_F(LinkNodeTest, DamagedDatagramsHaveNoEffect) {
    Start();
    RawPeer peer(proxy);
    const std::string whole = SerializeMessage(RawPost("key", "value"));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        peer.SendBytes(whole.substr(0, length));
        peer.SendBytes(std::string(length, '\xff'));
    }
    EXPECT_EQ(Put(proxy, "after", ""), 0);
    EXPECT_EQ(device.Requests().back().key, "after");
}

TEST_F(LinkNodeTest, APortThatIsLeftRefusesAtOnceThoughProxiesKeepWhatIsLeftOfTheNode) {
    Start();
    Found readers(device, "reader");
    ASSERT_EQ(readers.Size(), 1U);
    ASSERT_EQ(device.Platform()->Exit(device.Platform()), 0);
    int result = 0;
    const milliseconds time = TimeOf([&] { result = Put(proxy, "key", "value"); });
    EXPECT_NE(result, 0);
    EXPECT_LT(time, seconds(3));
}

TEST_F(LinkNodeTest, EndedNodesThatProxiesKeepHoldNoDescriptors) {
    Start();
    const std::size_t before = OpenDescriptors();
    TestNode other("printer");
    ASSERT_TRUE(other.Start());
    Found cameras(other, "camera");
    ASSERT_EQ(cameras.Size(), 1U);
    other.Free();
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == before; }))
        << "others ask once where it has gone";
}

TEST(LinkProxyTest, AreFreedInAnyOrderAndTheRestOfTheChainStaysValid) {
    TestNode asker("reader");
    std::vector<std::unique_ptr<TestNode>> devices;
    ASSERT_TRUE(asker.Start());
    for (int count = 0; count < 4; ++count) {
        devices.push_back(std::make_unique<TestNode>("camera"));
        ASSERT_TRUE(devices.back()->Start());
    }
    std::vector<AppResourceProxy*> chain = Found(asker, "camera").Release();
    ASSERT_THAT(chain, SizeIs(4));
    FreeAppResourceProxy2(chain[1]);
    EXPECT_EQ(GetNextAppResourceProxy(chain[0]), chain[2]);
    FreeAppResourceProxy2(chain[3]);
    EXPECT_EQ(GetNextAppResourceProxy(chain[2]), nullptr);
    EXPECT_EQ(Put(chain[2], "key", ""), 0);
    asker.Free();
    FreeAppResourceProxy2(chain[0]);
    EXPECT_NE(Put(chain[2], "key", ""), 0);
    FreeAppResourceProxy2(chain[2]);
}

TEST_F(LinkNodeTest, RequestsAfterExitFailAndTheProxiesCanStillBeFreed) {
    Start();
    LinkPlatform* platform = asker.Platform();
    ASSERT_EQ(platform->Exit(platform), 0);
    EXPECT_NE(Put(proxy, "key", "value"), 0);
    EXPECT_NE(Get(proxy, "key", "value").result, 0);
    EXPECT_EQ(platform->FindResource(platform, "camera"), nullptr);
    asker.Free();
    EXPECT_NE(Put(proxy, "key", "value"), 0);
    EXPECT_THAT(device.Requests(), IsEmpty());
    EXPECT_STREQ(proxy->GetAddress(proxy), "127.0.0.1");
}

TEST_F(LinkNodeTest, ExitWaitsForTheHandlerThatRunsAndNothingIsCalledAfterwards) {
    std::promise<void> inside;
    std::atomic<bool> left{false};
    device.handler = [&](const Request& request, std::string&) {
        if (request.key == "first") {
            inside.set_value();
            std::this_thread::sleep_for(milliseconds(500));
            left = true;
        }
        return 0;
    };
    Start();
    auto first = std::async(std::launch::async, [&] { return Put(proxy, "first", ""); });
    inside.get_future().wait();
    auto second = std::async(std::launch::async, [&] { return Put(proxy, "second", ""); });
    LinkPlatform* platform = device.Platform();
    EXPECT_EQ(platform->Exit(platform), 0);
    EXPECT_TRUE(left);
    const std::size_t requests = device.Requests().size();
    const std::size_t events = device.Events().size();
    EXPECT_EQ(first.get(), 0);
    second.get();
    EXPECT_EQ(device.Requests().size(), requests);
    EXPECT_EQ(device.Events().size(), events);
}

TEST_F(LinkNodeTest, ExitEndsTheRequestsThatWait) {
    std::promise<void> inside;
    std::promise<void> release;
    device.handler = [&](const Request&, std::string&) {
        inside.set_value();
        release.get_future().wait();
        return 0;
    };
    Start();
    auto waiting = std::async(std::launch::async, [&] { return Put(proxy, "key", ""); });
    inside.get_future().wait();
    LinkPlatform* platform = asker.Platform();
    EXPECT_EQ(platform->Exit(platform), 0);
    EXPECT_NE(waiting.get(), 0);
    release.set_value();
    device.Free();  // the handler uses what ends with this function
}

TEST_F(LinkNodeTest, ExitOnAThreadThatItWouldWaitForFails) {
    std::atomic<int> result{0};
    device.handler = [&](const Request&, std::string&) {
        result = device.Platform()->Exit(device.Platform());
        return 0;
    };
    Start();
    EXPECT_EQ(Put(proxy, "key", ""), 0);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(Put(proxy, "key", ""), 0);
}

TEST_F(LinkNodeTest, AHandleCanRunAgainAndIsThenAnotherDevice) {
    Start();
    ASSERT_TRUE(Eventually([&] { return asker.Events().size() == 1; }));
    LinkPlatform* platform = device.Platform();
    ASSERT_EQ(platform->Exit(platform), 0);
    ASSERT_TRUE(Eventually([&] { return asker.Events().size() == 2; }, seconds(2))) << "the goodbye";
    ASSERT_EQ(platform->Run(platform), 0);
    ASSERT_TRUE(Eventually([&] { return asker.Events().size() == 3; }));
    const std::vector<Event> events = asker.Events();
    EXPECT_TRUE(events[0].added);
    EXPECT_FALSE(events[1].added);
    EXPECT_TRUE(events[2].added);
    EXPECT_EQ(events[0].id, events[1].id);
    EXPECT_NE(events[1].id, events[2].id);
    EXPECT_EQ(events[2].deviceType, "camera");
    EXPECT_EQ(Found(asker, "camera").Size(), 1U);
}

TEST_F(LinkNodeTest, ARegistrationMayBeReplacedWhileTheNodeRuns) {
    Start();
    TestNode other("printer");
    LinkPlatform* platform = device.Platform();
    ASSERT_EQ(platform->RegisterResource(platform, other.Resource(), nullptr), 0);
    EXPECT_TRUE(Eventually([&] { return Found(asker, "printer").Size() == 1; }));
    EXPECT_EQ(Found(asker, "camera").Size(), 0U);
    Found printers(asker, "printer");
    EXPECT_EQ(Put(printers.At(0), "key", ""), 0);
    EXPECT_THAT(other.Requests(), SizeIs(1));
}

TEST_F(LinkNodeTest, ThreadsMayShareAProxy) {
    Start();
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int count = 0; count < 50; ++count) {
                const std::string value = std::to_string(thread * 1000 + count);
                failures += Get(proxy, "key", value).text != value;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
    EXPECT_THAT(device.Requests(), SizeIs(200));
}

TEST_F(LinkNodeTest, ManyRequestsLeaveNoDescriptorBehind) {
    Start();
    const std::size_t before = OpenDescriptors();
    for (int count = 0; count < 300; ++count) {
        ASSERT_EQ(Put(proxy, "key", "value"), 0);
    }
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() <= before + 2; }));
}

TEST_F(LinkNodeTest, ProgramsThatTheProcessStartsInheritNoDescriptor) {
    const std::set<int> before = InheritedDescriptors();
    std::set<int> during;
    device.handler = [&](const Request&, std::string&) {
        during = InheritedDescriptors();
        return 0;
    };
    Start();
    ASSERT_EQ(Put(proxy, "while it waits its socket is open", ""), 0);
    EXPECT_EQ(during, before);
}

TEST_F(LinkNodeTest, HandlesLeaveNoDescriptorBehind) {
    const std::size_t before = OpenDescriptors();
    for (int count = 0; count < 5; ++count) {
        TestNode node("camera");
        ASSERT_TRUE(node.Start());
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(LinkHandleTest, TheOrderOfCallsIsKept) {
    TestNode node("camera");
    LinkPlatform* platform = node.Platform();
    EXPECT_EQ(platform->Run(platform), -1) << "before Init";
    EXPECT_EQ(platform->FindResource(platform, "camera"), nullptr);
    EXPECT_EQ(platform->Exit(platform), 0) << "nothing to end";
    EXPECT_EQ(platform->Init(platform), 0);
    EXPECT_EQ(platform->RegisterResource(platform, nullptr, nullptr), -1);
    EXPECT_EQ(platform->Run(platform), 0) << "a node without a resource";
    EXPECT_EQ(platform->Run(platform), 0) << "it runs already";
    EXPECT_EQ(platform->FindResource(platform, nullptr), nullptr);
    EXPECT_EQ(platform->SetDebugLevel(platform, 0), 0);
    EXPECT_EQ(platform->Exit(platform), 0);
    EXPECT_EQ(platform->Exit(platform), 0);
}

TEST(LinkHandleTest, NullIsTaken) {
    FreeLinkPlatform(nullptr);
    FreeAppResourceProxy2(nullptr);
    EXPECT_EQ(GetNextAppResourceProxy(nullptr), nullptr);
    TestNode node("camera");
    EXPECT_EQ(node.Platform()->Run(nullptr), -1);
    EXPECT_EQ(node.Platform()->FindResource(nullptr, "camera"), nullptr);
}

TEST(LinkHandleTest, AFixedPortIsUsedAndNeverSharedByAccident) {
    ASSERT_EQ(setenv("LUMORA_LINK_PORT", "6100", 1), 0);
    TestNode asker("reader");
    TestNode second("camera");
    const bool first = asker.Start();
    const bool both = second.Start();
    unsetenv("LUMORA_LINK_PORT");
    EXPECT_TRUE(first);
    EXPECT_FALSE(both);
    TestNode device("camera");
    ASSERT_TRUE(device.Start());
    EXPECT_THAT(Found(device, "reader").Endpoints(), ElementsAre("127.0.0.1:6100"));
}

TEST(LinkHandleTest, StaticPeersAreFoundToo) {
    ASSERT_EQ(setenv("LUMORA_LINK_PORT", "6101", 1), 0);
    TestNode device("camera");
    ASSERT_TRUE(device.Start());
    unsetenv("LUMORA_LINK_PORT");
    ASSERT_EQ(setenv("LUMORA_LINK_PEERS", "127.0.0.1:6101", 1), 0);
    TestNode asker("reader");
    ASSERT_TRUE(asker.Start());
    unsetenv("LUMORA_LINK_PEERS");
    EXPECT_THAT(Found(asker, "camera").Endpoints(), ElementsAre("127.0.0.1:6101"));
}

// A node that says that it runs must be found, however few descriptors the process may have.
TEST(LinkHandleTest, WithFewDescriptorsANodeDoesNotStartOrCanBeFound) {
    TestNode asker("reader");
    ASSERT_TRUE(asker.Start());
    rlimit usual = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    int started = 0;
    int refused = 0;
    for (rlim_t most = OpenDescriptors() + 1; most < 200 && started < 2; ++most) {
        TestNode device("camera");
        const rlimit few{most, usual.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        const bool runs = device.Start();
        setrlimit(RLIMIT_NOFILE, &usual);
        ++(runs ? started : refused);
        ASSERT_EQ(Found(asker, "camera").Size(), runs ? 1U : 0U) << most << " descriptors";
    }
    EXPECT_EQ(started, 2);
    EXPECT_GT(refused, 3);
}

// Hellos are read together there.
TEST(LinkHandleTest, AmongManyNodesNoneIsTakenForDeadAndThoseThatComeAndGoAreTold) {
    constexpr std::size_t MANY = 40;
    TestNode watcher("reader");
    ASSERT_TRUE(watcher.Start());
    TestNode pattern("camera");
    std::vector<LinkPlatform*> crowd(MANY);
    for (LinkPlatform*& node : crowd) {
        node = GetLinkPlatform();
        ASSERT_EQ(node->Init(node), 0);
        ASSERT_EQ(node->RegisterResource(node, pattern.Resource(), nullptr), 0);
        ASSERT_EQ(node->Run(node), 0);
    }
    const auto heard = [&](std::size_t events) {
        return [&, events] { return watcher.Events().size() == events; };
    };
    ASSERT_TRUE(Eventually(heard(MANY), seconds(10)));
    std::this_thread::sleep_for(seconds(4));
    EXPECT_EQ(watcher.Events().size(), MANY) << "a silent node is removed after 3 s";
    {
        TestNode late("lamp");
        ASSERT_TRUE(late.Start());
        ASSERT_TRUE(Eventually(heard(MANY + 1), seconds(5)));
    }
    EXPECT_TRUE(Eventually(heard(MANY + 2), seconds(2)));
    EXPECT_FALSE(watcher.Events().back().added);
    std::for_each(crowd.begin(), crowd.end(), FreeLinkPlatform);
    EXPECT_TRUE(Eventually(heard(2 * MANY + 2), seconds(5)));
}

TEST(LinkHandleTest, AHostWithoutThatInterfaceStartsAndWaits) {
    ASSERT_EQ(setenv("LUMORA_LINK_INTERFACE", "absent0", 1), 0);
    TestNode node("camera");
    const bool started = node.Start();
    setenv("LUMORA_LINK_INTERFACE", "lo", 1);
    EXPECT_TRUE(started);
    EXPECT_EQ(Found(node, "camera").Size(), 0U);
}

TEST(LinkHandleTest, AnInterfaceThatAppearsLateIsUsed) {
    ASSERT_EQ(setenv("LUMORA_LINK_INTERFACE", "lumora0", 1), 0);
    TestNode asker("reader");
    TestNode device("camera");
    const bool started = asker.Start() && device.Start();
    setenv("LUMORA_LINK_INTERFACE", "lo", 1);
    ASSERT_TRUE(started);
    const bool made = std::system(
                          "ip link add lumora0 type veth peer name lumora1 && ip link set lumora1 up && "
                          "ip address add 10.99.0.1/24 dev lumora0 && ip link set lumora0 up") == 0;
    if (!made) {
        GTEST_SKIP() << "no right to make an interface";
    }
    EXPECT_TRUE(Eventually([&] { return Found(asker, "camera").Size() == 1; }));
    Found cameras(asker, "camera");
    ASSERT_EQ(cameras.Size(), 1U);
    EXPECT_STREQ(cameras.At(0)->GetAddress(cameras.At(0)), "10.99.0.1");
    EXPECT_EQ(Put(cameras.At(0), "key", ""), 0);

    // Another address on the same interface: the device is removed and added.
    ASSERT_EQ(
        std::system("ip address add 10.98.0.1/24 dev lumora0 && ip address del 10.99.0.1/24 dev lumora0"), 0);
    EXPECT_TRUE(Eventually([&] {
        const std::vector<Event> events = asker.Events();
        return !events.empty() && events.back().added && events.back().endpoint.rfind("10.98.0.1:", 0) == 0;
    }));
    ASSERT_EQ(std::system("ip link del lumora0"), 0);
    EXPECT_TRUE(Eventually([&] { return !asker.Events().back().added; }));
}

}  // namespace lumora_link::test
