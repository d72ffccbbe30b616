#include "hub/web/server.h"

#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "base/thread.h"
#include "hub/core/log.h"
#include "hub/web/listen_problem.h"
#include "hub/web/wsi_request.h"

namespace lumora_hub::web {
namespace {

constexpr std::size_t PIECE = 65536;  // is written at once
// Of the library around a piece. What is longer than it permits goes out in turns of 4 KiB, and is copied for
// each.
constexpr std::size_t MOST_FRAMING = LWS_PRE;
constexpr int PIECES_AT_ONCE = 16;               // of a connection, before others have their turn
constexpr std::size_t MOST_DRAINED = 16U << 20;  // of a refused body
constexpr std::chrono::seconds DRAIN_TIME{10};
constexpr std::size_t LARGEST_MESSAGE = 4096;  // of a client over a WebSocket; the streams expect none
constexpr lws_usec_t TICK = 1'000'000;
// A block that waits in the kernel can no longer be dropped for a newer one.
constexpr int MOST_UNSENT = 131072;

// WebSockets that are silent are asked after half a minute. A tab that stopped reading answers late.
constexpr lws_retry_bo_t IDLE_POLICY = {nullptr, 0, 0, 30, 600, 0};

void LogLine(int /*level*/, const char* line) {
    const std::string_view text(line);
    HUB_LOG_LIMITED(lumora::LOG_WARNING, "The web server: %.*s",
                    static_cast<int>(text.find_last_not_of('\n') + 1), line);
}

// While a reply is sent the library reads nothing, and so does not notice that the client has closed.
bool HasPeerClosed(int socket) {
    pollfd state{socket, POLLRDHUP, 0};
    return poll(&state, 1, 0) > 0 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

bool IsAny(const std::string& address) { return address == "0.0.0.0" || address == "::"; }

// Where browsers reach a hub that listens on all addresses: no browser of another host goes to 0.0.0.0.
std::string NameOfHost(const WebOptions& options) {
    std::array<char, 256> name{};
    if (!options.hostNames.empty()) {
        return options.hostNames.front();
    }
    return gethostname(name.data(), name.size() - 1) == 0 && name[0] != '\0' ? name.data() : options.address;
}

}  // namespace

Server::Server(DeviceHub& hub, const FigureBoard& figures, const WebOptions& options)
    : mOptions(options),
      mSite(hub, figures, options),
      mQuota(options.limits.connections, options.limits.connectionsOfAddress),
      mSpace(LWS_PRE + PIECE) {
    const std::string refusal = Refusal(options);
    if (!refusal.empty()) {
        throw std::runtime_error(refusal);
    }
    Open();
    mSite.Mail()->Open([context = mContext.get()] { lws_cancel_service(context); });
    mThread = lumora::StartThread("hub-web", [this] { Serve(); });
}

Server::~Server() {
    mIsEnding = true;
    lws_cancel_service(mContext.get());
    mThread.join();
    mSite.Mail()->Close();
}

void Server::Open() {
    lws_set_log_level(LLL_ERR | LLL_WARN, LogLine);
    mProtocols = {{"lumora", &Server::Call, 0, LARGEST_MESSAGE, 0, nullptr, PIECE + MOST_FRAMING}, {}};
    lws_context_creation_info info{};
    info.port = mOptions.port;
    info.iface = IsAny(mOptions.address) ? nullptr : mOptions.address.c_str();
    info.protocols = mProtocols.data();
    info.user = this;
    info.server_string = "lumora-hub";
    info.alpn = "http/1.1";
    info.max_http_header_data = static_cast<unsigned short>(mOptions.limits.headBytes);
    info.max_http_header_pool = static_cast<unsigned short>(mOptions.limits.connections);
    info.fd_limit_per_thread = static_cast<unsigned>(mOptions.limits.connections + 64);
    info.retry_and_idle_policy = &IDLE_POLICY;
    // Our own times are shorter; they count the whole head, not the time since its latest byte.
    info.timeout_secs = 3600;
    info.timeout_secs_ah_idle = 3600;
    info.keepalive_timeout = 3600;
    info.options = LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND | LWS_SERVER_OPTION_DISABLE_OS_CA_CERTS;
    if (mOptions.address.find(':') == std::string::npos) {
        info.options |= LWS_SERVER_OPTION_DISABLE_IPV6;
    }
    if (!mOptions.certificateFile.empty()) {
        info.options |= LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
        info.ssl_cert_filepath = mOptions.certificateFile.c_str();
        info.ssl_private_key_filepath = mOptions.keyFile.c_str();
        info.ssl_options_set = static_cast<long>(SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
    }
    mContext.reset(lws_create_context(&info));
    lws_vhost* const host = mContext ? lws_get_vhost_by_name(mContext.get(), "default") : nullptr;
    if (host == nullptr) {
        throw std::runtime_error("the web page cannot listen on " + mOptions.address + " port " +
                                 std::to_string(mOptions.port) + ": " + ListenProblem(mOptions));
    }
    mPort = lws_get_vhost_listen_port(host);
}

std::string Server::Url() const {
    const std::string host = IsAny(mOptions.address) ? NameOfHost(mOptions) : mOptions.address;
    const bool isVersion6 = host.find(':') != std::string::npos;
    return std::string(mOptions.certificateFile.empty() ? "http" : "https") + "://" +
           (isVersion6 ? "[" + host + "]" : host) + ":" + std::to_string(mPort) + "/";
}

// The context is destroyed on this thread: its callbacks use what belongs to the thread.
void Server::Serve() {
    mTimer.server = this;
    OnTimer(&mTimer.entry);
    while (!mIsEnding && lws_service(mContext.get(), 0) >= 0) {
    }
    lws_sul_cancel(&mTimer.entry);
}

void Server::OnTimer(lws_sorted_usec_list_t* entry) {
    Server* const server = reinterpret_cast<Timer*>(entry)->server;
    try {
        server->Tick();
    } catch (const std::exception& error) {
        HUB_LOG(lumora::LOG_WARNING, "A second's work is left out: %s", error.what());
    }
    lws_sul_schedule(server->mContext.get(), 0, entry, &Server::OnTimer, TICK);
}

// The library is C, so no exception may pass through it. Lack of memory costs the connection.
int Server::Call(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length) {
    try {
        return Dispatch(wsi, reason, user, in, length);
    } catch (const std::exception& error) {
        HUB_LOG(lumora::LOG_WARNING, "A connection is closed: %s", error.what());
        return -1;
    }
}

int Server::Dispatch(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length) {
    auto* const server = static_cast<Server*>(lws_context_user(lws_get_context(wsi)));
    if (reason == LWS_CALLBACK_FILTER_NETWORK_CONNECTION) {
        return server->OnNetworkConnection(static_cast<int>(reinterpret_cast<std::intptr_t>(in)));
    }
    if (reason == LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED) {
        return server->OnAccepted(wsi);
    }
    if (reason == LWS_CALLBACK_EVENT_WAIT_CANCELLED) {
        server->OnMail();
        return 0;
    }
    auto* const connection = static_cast<Connection*>(lws_get_opaque_user_data(wsi));
    if (connection == nullptr) {
        return lws_callback_http_dummy(wsi, reason, user, in, length);
    }
    const std::string_view bytes(static_cast<const char*>(in), in == nullptr ? 0 : length);
    switch (reason) {
        case LWS_CALLBACK_WSI_DESTROY:
            server->OnClosed(*connection);
            return 0;
        case LWS_CALLBACK_HTTP:
            return server->OnRequest(*connection);
        case LWS_CALLBACK_HTTP_CONFIRM_UPGRADE:
            return server->OnUpgrade(*connection, in == nullptr ? "" : static_cast<char*>(in));
        case LWS_CALLBACK_HTTP_BODY:
            return server->OnBody(*connection, bytes);
        case LWS_CALLBACK_HTTP_BODY_COMPLETION:
            return server->OnBodyEnd(*connection);
        case LWS_CALLBACK_ESTABLISHED:
            server->AwaitRoom(*connection);
            return 0;
        case LWS_CALLBACK_HTTP_WRITEABLE:
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return server->OnWritable(*connection);
        case LWS_CALLBACK_RECEIVE:
            return -1;  // the streams go one way
        default:
            return lws_callback_http_dummy(wsi, reason, user, in, length);
    }
}

int Server::OnNetworkConnection(int socket) {
    if (!mQuota.HasRoom(PeerAddress(socket))) {
        ++mSite.Counts().refused;
        return -1;
    }
    return 0;
}

int Server::OnAccepted(lws* wsi) {
    const int socket = lws_get_socket_fd(wsi);
    setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &MOST_UNSENT, sizeof(MOST_UNSENT));
    auto connection = std::make_unique<Connection>();
    connection->number = ++mLastNumber;
    connection->wsi = wsi;
    connection->address = PeerAddress(socket);
    connection->deadline = Connection::Clock::now() + mOptions.limits.head;
    lws_set_opaque_user_data(wsi, connection.get());
    connection->share = mQuota.Take(connection->address);
    mConnections.emplace(connection->number, std::move(connection));
    ++mSite.Counts().accepted;
    mSite.Counts().connections = mConnections.size();
    return 0;
}

void Server::OnClosed(Connection& connection) {
    lws_set_opaque_user_data(connection.wsi, nullptr);
    EndBody(connection);
    mSite.Forget(connection.number);
    mConnections.erase(connection.number);
    mSite.Counts().connections = mConnections.size();
}

int Server::OnRequest(Connection& connection) {
    if (connection.phase != Connection::Phase::HEAD) {
        return -1;  // a second request while the first is answered
    }
    connection.request = ReadRequest(connection.wsi, false);
    connection.request.address = connection.address;
    Decision decision = mSite.Begin(connection.number, connection.request);
    const Request& request = connection.request;
    const bool hasBody = request.hasTransferEncoding || request.contentLength.value_or(0) > 0;
    if (decision.kind == Decision::Kind::REPLY && hasBody) {
        return RefuseWithBody(connection, decision.reply);
    }
    Take(connection, std::move(decision));
    return 0;
}

// The library answers an upgrade itself if it is admitted; a refusal is written here and now.
int Server::OnUpgrade(Connection& connection, std::string_view protocol) {
    if (protocol != "websocket") {
        return -1;
    }
    connection.request = ReadRequest(connection.wsi, true);
    connection.request.address = connection.address;
    Decision decision = mSite.Begin(connection.number, connection.request);
    if (decision.reply.flow) {
        connection.isWebSocket = true;
        connection.flow = std::move(decision.reply.flow);
        ++mSite.Counts().replies[101];
        Enter(connection, Connection::Phase::STREAM);
        return 0;
    }
    return RefuseWithBody(connection, decision.reply) == 0 ? 1 : -1;
}

// A client sees the reply only if it is there before the connection ends, and a connection with unread bytes
// ends by a reset, which discards the reply. So the body is read for a while.
int Server::RefuseWithBody(Connection& connection, const Reply& reply) {
    ++mSite.Counts().replies[reply.status];
    if (!WriteHead(connection.wsi, reply, reply.text.size(), true)) {
        return -1;
    }
    const std::size_t size = std::min(reply.text.size(), PIECE);
    unsigned char* const start = mSpace.data() + LWS_PRE;
    reply.text.copy(reinterpret_cast<char*>(start), size);
    if (size > 0 && lws_write(connection.wsi, start, size, LWS_WRITE_HTTP_FINAL) < 0) {
        return -1;
    }
    Enter(connection, Connection::Phase::DRAIN);
    return 0;
}

int Server::OnBody(Connection& connection, std::string_view bytes) {
    if (connection.phase == Connection::Phase::DRAIN) {
        connection.drained += bytes.size();
        return connection.drained > MOST_DRAINED ? -1 : 0;
    }
    if (bytes.empty()) {  // the library's way to tell of a Content-Length of 0
        return 0;
    }
    if (connection.phase != Connection::Phase::BODY ||
        connection.body.size() + bytes.size() > connection.bodyBytes) {
        return -1;
    }
    connection.body += bytes;
    return 0;
}

int Server::OnBodyEnd(Connection& connection) {
    if (connection.phase != Connection::Phase::BODY) {
        return connection.phase == Connection::Phase::DRAIN ? -1 : 0;
    }
    std::string body = std::move(connection.body);
    EndBody(connection);
    Take(connection, mSite.TakeBody(connection.number, connection.request, std::move(body)));
    return 0;
}

void Server::EndBody(Connection& connection) {
    connection.bodyShare = Quota::Share();
    connection.bodyBytes = 0;
    connection.body = std::string();
}

void Server::Take(Connection& connection, Decision decision) {
    lws_set_timeout(connection.wsi, NO_PENDING_TIMEOUT, 0);
    if (decision.kind == Decision::Kind::BODY) {
        connection.bodyBytes = decision.bodyBytes;
        connection.bodyShare = std::move(decision.bodyShare);
        Enter(connection, Connection::Phase::BODY);
    } else if (decision.kind == Decision::Kind::WAIT) {
        connection.phase = Connection::Phase::WAITING;
        connection.deadline = Connection::Clock::now() + decision.patience;
    } else {
        TakeReply(connection, std::move(decision.reply));
    }
}

void Server::TakeReply(Connection& connection, Reply reply) {
    Enter(connection, Connection::Phase::REPLY);
    connection.reply = std::move(reply);
    AwaitRoom(connection);
}

namespace {

// A reply of a known size.
class ReplyFlow final : public Flow {
public:
    explicit ReplyFlow(Message message) : mMessage(std::move(message)) {}
    Piece Fill(char* room, std::size_t size) override { return mMessage.Read(room, size); }

private:
    Message mMessage;
};

lws_write_protocol WayOf(const Connection& connection, const Piece& piece) {
    if (!connection.isWebSocket) {
        const bool isEnd = connection.phase == Connection::Phase::REPLY && piece.isLast;
        return isEnd ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP;
    }
    const lws_write_protocol type = connection.flow->IsBinary() ? LWS_WRITE_BINARY : LWS_WRITE_TEXT;
    int way = piece.isFirst ? type : LWS_WRITE_CONTINUATION;
    way |= piece.isLast ? 0 : LWS_WRITE_NO_FIN;
    return static_cast<lws_write_protocol>(way);
}

}  // namespace

// Writes the head. False if the connection must end.
bool Server::BeginReply(Connection& connection) {
    Reply reply = std::move(*connection.reply);
    connection.reply.reset();
    ++mSite.Counts().replies[reply.status];
    if (reply.flow) {
        lws_set_timeout(connection.wsi, NO_PENDING_TIMEOUT, 0);
        connection.flow = std::move(reply.flow);
        Enter(connection, Connection::Phase::STREAM);
        return WriteHead(connection.wsi, reply, std::nullopt, true);
    }
    Message message(std::move(reply.text), reply.block);
    const std::size_t size = message.Size();
    const bool hasBody = connection.request.method != Method::HEAD;
    connection.flow = std::make_unique<ReplyFlow>(hasBody ? std::move(message) : Message());
    return WriteHead(connection.wsi, reply, size, false);
}

int Server::OnWritable(Connection& connection) {
    connection.waitsForRoom = false;
    if (connection.reply) {
        if (!BeginReply(connection)) {
            return -1;
        }
        AwaitRoom(connection);
        return 0;
    }
    return connection.flow ? Pump(connection) : 0;
}

// Writes until nothing is left, the socket's buffer is full, or it is the turn of others.
int Server::Pump(Connection& connection) {
    const bool isReply = connection.phase == Connection::Phase::REPLY;
    unsigned char* const start = mSpace.data() + LWS_PRE;
    connection.deadline = Connection::Clock::now() + TimeOf(connection.phase);
    for (int written = 0; written < PIECES_AT_ONCE; ++written) {
        const Piece piece = connection.flow->Fill(reinterpret_cast<char*>(start), PIECE);
        if (piece.size > 0 && lws_write(connection.wsi, start, piece.size, WayOf(connection, piece)) < 0) {
            return -1;
        }
        if (isReply && piece.isLast) {
            return EndReply(connection);
        }
        if (piece.size == 0) {
            return 0;
        }
        if (lws_send_pipe_choked(connection.wsi) != 0) {
            break;
        }
    }
    AwaitRoom(connection);
    return 0;
}

// The connection may bring a further request.
int Server::EndReply(Connection& connection) {
    connection.flow.reset();
    Enter(connection, Connection::Phase::HEAD);
    connection.deadline = Connection::Clock::now() + mOptions.limits.idle;
    return lws_http_transaction_completed(connection.wsi) != 0 ? -1 : 0;
}

void Server::AwaitRoom(Connection& connection) {
    if (!connection.waitsForRoom) {
        connection.waitsForRoom = true;
        lws_callback_on_writable(connection.wsi);
    }
}

void Server::Enter(Connection& connection, Connection::Phase phase) {
    connection.phase = phase;
    connection.deadline = Connection::Clock::now() + TimeOf(phase);
}

std::chrono::milliseconds Server::TimeOf(Connection::Phase phase) const {
    switch (phase) {
        case Connection::Phase::HEAD:
            return mOptions.limits.head;
        case Connection::Phase::BODY:
            return mOptions.limits.body;
        case Connection::Phase::WAITING:
            return mOptions.limits.outcome;
        case Connection::Phase::REPLY:
            return mOptions.limits.reading;
        case Connection::Phase::STREAM:
            return mOptions.limits.stalled;
        case Connection::Phase::DRAIN:
            break;
    }
    return DRAIN_TIME;
}

void Server::OnMail() {
    Site::Mailing mailing = mSite.TakeMail();
    for (Site::LateReply& late : mailing.replies) {
        const auto place = mConnections.find(late.number);
        if (place != mConnections.end() && place->second->phase == Connection::Phase::WAITING) {
            TakeReply(*place->second, std::move(late.reply));
        }
    }
    for (const auto& [number, connection] : mConnections) {
        const bool hasMail = mailing.hasNews || mailing.streams.count(number) != 0;
        if (hasMail && connection->phase == Connection::Phase::STREAM) {
            AwaitRoom(*connection);
        }
    }
}

void Server::Tick() {
    mSite.Tick();
    const Connection::Clock::time_point now = Connection::Clock::now();
    for (const auto& [number, connection] : mConnections) {
        if (connection->phase == Connection::Phase::STREAM) {
            TickStream(*connection);
        }
        if (now >= connection->deadline) {
            Expire(*connection);
        }
    }
}

void Server::TickStream(Connection& connection) {
    if (!connection.isWebSocket && HasPeerClosed(lws_get_socket_fd(connection.wsi))) {
        Kill(connection);
    } else if (!connection.waitsForRoom) {
        // A stream with nothing to send may be silent for any time.
        Enter(connection, Connection::Phase::STREAM);
        AwaitRoom(connection);
    }
}

void Server::Expire(Connection& connection) {
    if (connection.phase == Connection::Phase::WAITING) {
        mSite.Forget(connection.number);
        TakeReply(connection, Site::Error(504, "no block came, or the device did not answer in time"));
        return;
    }
    ++mSite.Counts().expired;
    Kill(connection);
}

// Not at once: the library may be in the middle of a list of connections.
void Server::Kill(Connection& connection) {
    connection.deadline = Connection::Clock::time_point::max();
    lws_set_timeout(connection.wsi, PENDING_TIMEOUT_HTTP_CONTENT, LWS_TO_KILL_ASYNC);
}

}  // namespace lumora_hub::web
