// Avahi finds, ZeroMQ carries: what a program without a middleware would put together.
#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/error.h>
#include <avahi-common/simple-watch.h>
#include <unistd.h>
#include <zmq.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/journey.h"
#include "bench/signal.h"

namespace lumora_bench {

namespace {

constexpr std::uint16_t PORT = 6704;
constexpr int PAUSE_MS = 1;

std::string ServiceOf(const std::string& type) { return "_" + type.substr(0, 13) + "._tcp"; }

struct Finder {
    AvahiSimplePoll* poll;
    AvahiClient* client;
    unsigned int wanted;
    unsigned int found = 0;
    std::string address;
};

void OnResolved(AvahiServiceResolver* resolver, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent event,
                const char*, const char*, const char*, const char*, const AvahiAddress* address,
                std::uint16_t port, AvahiStringList*, AvahiLookupResultFlags, void* context) {
    auto* finder = static_cast<Finder*>(context);
    if (event == AVAHI_RESOLVER_FOUND) {
        char text[AVAHI_ADDRESS_STR_MAX];
        avahi_address_snprint(text, sizeof(text), address);
        finder->address = std::string("tcp://") + text + ":" + std::to_string(port);
        if (++finder->found == finder->wanted) {
            avahi_simple_poll_quit(finder->poll);
        }
    }
    avahi_service_resolver_free(resolver);
}

void OnBrowsed(AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol, AvahiBrowserEvent event,
               const char* name, const char* type, const char* domain, AvahiLookupResultFlags,
               void* context) {
    auto* finder = static_cast<Finder*>(context);
    if (event == AVAHI_BROWSER_NEW) {
        avahi_service_resolver_new(finder->client, interface, protocol, name, type, domain, AVAHI_PROTO_INET,
                                   AvahiLookupFlags(0), OnResolved, finder);
    }
}

void OnClient(AvahiClient*, AvahiClientState, void*) {}
void OnGroup(AvahiEntryGroup*, AvahiEntryGroupState, void*) {}

AvahiClient* Connect(AvahiSimplePoll* poll) {
    int error = 0;
    AvahiClient* client =
        avahi_client_new(avahi_simple_poll_get(poll), AvahiClientFlags(0), OnClient, nullptr, &error);
    if (client == nullptr) {
        Fail(std::string("avahi: ") + avahi_strerror(error));
    }
    return client;
}

void* Socket(int kind) { return zmq_socket(zmq_ctx_new(), kind); }

}  // namespace

void Offer(const std::string& type, unsigned int count) {
    AvahiSimplePoll* poll = avahi_simple_poll_new();
    AvahiClient* client = Connect(poll);
    for (unsigned int device = 0; device < count; ++device) {
        AvahiEntryGroup* group = avahi_entry_group_new(client, OnGroup, nullptr);
        const std::string name = "bench " + std::to_string(getpid()) + " " + std::to_string(device);
        if (avahi_entry_group_add_service(group, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, AvahiPublishFlags(0),
                                          name.c_str(), ServiceOf(type).c_str(), nullptr, nullptr, PORT,
                                          nullptr) < 0 ||
            avahi_entry_group_commit(group) < 0) {
            Fail("avahi: a service was refused");
        }
    }
    void* publisher = Socket(ZMQ_PUB);
    if (zmq_bind(publisher, ("tcp://*:" + std::to_string(PORT)).c_str()) != 0) {
        Fail("zmq: bind");
    }
    std::puts("ready");
    std::fflush(stdout);
    const std::vector<char> block(1024);
    while (avahi_simple_poll_iterate(poll, PAUSE_MS) == 0) {
        zmq_send(publisher, block.data(), block.size(), ZMQ_DONTWAIT);
    }
}

unsigned int Travel(const std::string& type, unsigned int count, Steps& steps) {
    AvahiSimplePoll* poll = avahi_simple_poll_new();
    Finder finder = {poll, Connect(poll), count, 0, {}};
    avahi_service_browser_new(finder.client, AVAHI_IF_UNSPEC, AVAHI_PROTO_INET, ServiceOf(type).c_str(),
                              nullptr, AvahiLookupFlags(0), OnBrowsed, &finder);
    steps.Reach("started");
    avahi_simple_poll_loop(poll);
    steps.Reach("found");
    void* subscriber = Socket(ZMQ_SUB);
    zmq_setsockopt(subscriber, ZMQ_SUBSCRIBE, "", 0);
    zmq_connect(subscriber, finder.address.c_str());
    char block[2048];
    if (zmq_recv(subscriber, block, sizeof(block), 0) < 0) {
        Fail("zmq: receive");
    }
    steps.Reach("first_block");
    return finder.found;
}

}  // namespace lumora_bench
