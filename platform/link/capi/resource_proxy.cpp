#include "platform/link/capi/resource_proxy.h"

#include <cstring>

#include "platform/link/log.h"

namespace lumora_link {

namespace {

struct Proxy;

// Elements not yet freed. Indices stay valid when others are freed, so an application may free them in any
// order.
struct Chain {
    lumora::Mutex mutex;
    std::vector<Proxy*> elements GUARDED_BY(mutex);
};

struct Proxy : AppResourceProxy {
    std::shared_ptr<Node> node;
    std::shared_ptr<Chain> chain;
    std::size_t place = 0;
    Endpoint endpoint;
    std::string address;
};

Proxy* OwnerOf(AppResourceProxy* proxy) { return static_cast<Proxy*>(proxy); }

// An empty outcome if the caller's texts cannot be sent.
Outcome Ask(AppResourceProxy* proxy, std::uint8_t method, const char* key, const char* value,
            std::size_t length) {
    const bool valid = proxy != nullptr && key != nullptr && (value != nullptr || length == 0) &&
                       length <= MAX_TEXT_BYTES && strnlen(key, MAX_TEXT_BYTES + 1) <= MAX_TEXT_BYTES;
    if (!valid) {
        return {};
    }
    Proxy* owner = OwnerOf(proxy);
    return owner->node->Request(owner->endpoint, method, key, std::string(length == 0 ? "" : value, length));
}

int Change(AppResourceProxy* proxy, std::uint8_t method, const char* key, const char* value,
           unsigned length) noexcept {
    try {
        return code::IsSuccess(Ask(proxy, method, key, value, length).code) ? 0 : -1;
    } catch (...) {
        LINK_LOG(LEVEL_ERROR, "no memory for a request\n");
        return -1;
    }
}

extern "C" {

static int ProxyGet(AppResourceProxy* proxy, const char* key, char* buffer, unsigned capacity) {
    try {
        const std::size_t length = buffer == nullptr ? 0 : strnlen(buffer, capacity);
        const Outcome outcome = Ask(proxy, code::GET, key, buffer, length);
        if (buffer == nullptr || !code::IsSuccess(outcome.code) || outcome.payload.size() > capacity) {
            return -1;
        }
        // The platform's interface gives capacity without the terminator, so the buffer is one byte longer.
        std::memcpy(buffer, outcome.payload.c_str(), outcome.payload.size() + 1);
        return 0;
    } catch (...) {
        LINK_LOG(LEVEL_ERROR, "no memory for a request\n");
        return -1;
    }
}

static int ProxyPut(AppResourceProxy* proxy, const char* key, const char* value, unsigned length) {
    return Change(proxy, code::PUT, key, value, length);
}

static int ProxyPost(AppResourceProxy* proxy, const char* key, const char* value, unsigned length) {
    return Change(proxy, code::POST, key, value, length);
}

static int ProxyDelete(AppResourceProxy* proxy, const char* key, const char* value, unsigned length) {
    return Change(proxy, code::DELETE, key, value, length);
}

static void ProxyReserved() {}

static const char* ProxyGetAddress(AppResourceProxy* proxy) {
    return proxy == nullptr ? "" : OwnerOf(proxy)->address.c_str();
}

static int ProxyGetPort(AppResourceProxy* proxy) {
    return proxy == nullptr ? 0 : OwnerOf(proxy)->endpoint.port;
}

}  // extern "C"

std::unique_ptr<Proxy> MakeProxy(const std::shared_ptr<Node>& node, const NodeDescription& found) {
    auto proxy = std::make_unique<Proxy>();
    static_cast<AppResourceProxy&>(*proxy) = {ProxyGet,      ProxyPut,        ProxyPost,   ProxyDelete,
                                              ProxyReserved, ProxyGetAddress, ProxyGetPort};
    proxy->node = node;
    proxy->endpoint = found.endpoint;
    proxy->address = HostText(found.endpoint.host);
    return proxy;
}

}  // namespace

AppResourceProxy* MakeProxyChain(const std::shared_ptr<Node>& node,
                                 const std::vector<NodeDescription>& found) {
    std::vector<std::unique_ptr<Proxy>> proxies;
    proxies.reserve(found.size());
    for (const NodeDescription& description : found) {
        proxies.push_back(MakeProxy(node, description));
    }
    const auto chain = std::make_shared<Chain>();
    lumora::MutexLock lock(chain->mutex);
    chain->elements.reserve(proxies.size());
    for (std::unique_ptr<Proxy>& proxy : proxies) {
        proxy->chain = chain;
        proxy->place = chain->elements.size();
        // reserve has made room, so this cannot throw and lose the element.
        chain->elements.push_back(proxy.release());
    }
    return chain->elements.empty() ? nullptr : chain->elements.front();
}

AppResourceProxy* NextOf(AppResourceProxy* proxy) {
    if (proxy == nullptr) {
        return nullptr;
    }
    Chain& chain = *OwnerOf(proxy)->chain;
    lumora::MutexLock lock(chain.mutex);
    // Freed elements have left null behind.
    for (std::size_t at = OwnerOf(proxy)->place + 1; at < chain.elements.size(); ++at) {
        if (chain.elements[at] != nullptr) {
            return chain.elements[at];
        }
    }
    return nullptr;
}

void FreeProxy(AppResourceProxy* proxy) {
    if (proxy == nullptr) {
        return;
    }
    const std::unique_ptr<Proxy> owner(OwnerOf(proxy));
    // A reference of its own: the lock below must not die together with the last element.
    const std::shared_ptr<Chain> chain = owner->chain;
    lumora::MutexLock lock(chain->mutex);
    chain->elements[owner->place] = nullptr;
}

}  // namespace lumora_link
