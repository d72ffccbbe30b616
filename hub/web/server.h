// Serves the site with HTTP and WebSocket, on a thread of its own.
#pragma once

#include <libwebsockets.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hub/core/quota.h"
#include "hub/web/connection.h"
#include "hub/web/options.h"
#include "hub/web/site.h"

namespace lumora_hub::web {

class Server {
public:
    // Shows the figures among its own. Throws std::runtime_error with a sentence for people.
    Server(DeviceHub& hub, const FigureBoard& figures, const WebOptions& options);
    // Ends all connections, and waits for the thread.
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Of the page, as a browser takes it.
    std::string Url() const;

private:
    struct Timer {
        lws_sorted_usec_list_t entry{};  // the first member: the library gives its address back
        Server* server = nullptr;
    };
    struct ContextEnd {
        void operator()(lws_context* context) const { lws_context_destroy(context); }
    };

    void Open();
    void Serve();
    static int Call(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length);
    static int Dispatch(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length);
    static void OnTimer(lws_sorted_usec_list_t* entry);

    // The results are those of the library's callback: 0 goes on, -1 closes the connection.
    int OnNetworkConnection(int socket);
    int OnAccepted(lws* wsi);
    void OnClosed(Connection& connection);
    int OnRequest(Connection& connection);
    int OnUpgrade(Connection& connection, std::string_view protocol);
    int OnBody(Connection& connection, std::string_view bytes);
    int OnBodyEnd(Connection& connection);
    int OnWritable(Connection& connection);
    void OnMail();
    void Tick();
    void TickStream(Connection& connection);
    void Expire(Connection& connection);
    void Kill(Connection& connection);

    void Take(Connection& connection, Decision decision);
    void TakeReply(Connection& connection, Reply reply);
    int RefuseWithBody(Connection& connection, const Reply& reply);
    bool BeginReply(Connection& connection);
    int Pump(Connection& connection);
    int EndReply(Connection& connection);
    void EndBody(Connection& connection);
    void AwaitRoom(Connection& connection);
    void Enter(Connection& connection, Connection::Phase phase);
    std::chrono::milliseconds TimeOf(Connection::Phase phase) const;

    const WebOptions mOptions;
    std::atomic<bool> mIsEnding{false};
    int mPort = 0;

    // What follows belongs to the service thread once it runs.
    Site mSite;
    Quota mQuota;  // of connections
    std::map<std::uint64_t, std::unique_ptr<Connection>> mConnections;
    std::uint64_t mLastNumber = 0;
    std::vector<unsigned char> mSpace;  // for what is written
    Timer mTimer;
    std::vector<lws_protocols> mProtocols;
    std::unique_ptr<lws_context, ContextEnd> mContext;  // destroyed before what its callbacks use
    std::thread mThread;
};

}  // namespace lumora_hub::web
