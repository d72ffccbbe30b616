#include "platform/link/io/coap_port.h"

#if LUMORA_LINK_HAS_CHANNELS
#include <openssl/crypto.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "platform/link/io/close_on_exec.h"
#include "platform/link/io/run_guarded.h"
#include "platform/link/io/send_queue.h"
#include "platform/link/log.h"
#include "platform/link/wire/messages.h"

namespace lumora_link {

namespace {

// What libcoap reads of one datagram at most; by default it takes less.
constexpr unsigned MAX_DATAGRAM = 1472;
// Sessions of requesters that have been served; libcoap frees the oldest beyond this.
constexpr unsigned MAX_IDLE_SESSIONS = 128;
// Others may begin several handshakes at once where datagrams get lost; libcoap takes less by default.
constexpr unsigned MAX_HANDSHAKES = 256;
constexpr unsigned SESSION_SECONDS = 30;
// Our own code repeats; libcoap's first repetition lies beyond the end of every session.
constexpr coap_fixed_point_t NEVER_REPEAT = {600, 0};
constexpr std::uint16_t UNLIMITED = 1000;
// libcoap tells that a message was not acknowledged after this time, one repetition, and twice this time.
constexpr coap_fixed_point_t FIRST_THIRD = {1, 233};
constexpr coap_fixed_point_t EXACTLY = {1, 0};
static_assert(3 * Milliseconds(1233) <= Network::UNACKNOWLEDGED, "told by then");

void Log(coap_log_t, const char* message) {
    const int error = errno;
    LINK_LOG(2, "libcoap: %s", message);
    errno = error;
}

void StartLibrary() {
    static std::once_flag once;
    std::call_once(once, [] {
#if LUMORA_LINK_HAS_CHANNELS
        // A program may end while nodes run. OpenSSL would free what their threads use.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
#endif
        coap_startup();
        coap_set_log_handler(Log);
        coap_set_log_level(LOG_EMERG);
    });
}

coap_address_t AddressOf(const Endpoint& endpoint) {
    coap_address_t address;
    coap_address_init(&address);
    address.size = sizeof address.addr.sin;
    address.addr.sin.sin_family = AF_INET;
    address.addr.sin.sin_addr.s_addr = endpoint.host;
    address.addr.sin.sin_port = htons(endpoint.port);
    return address;
}

Endpoint EndpointOf(const coap_address_t* address) {
    return {address->addr.sin.sin_addr.s_addr, ntohs(address->addr.sin.sin_port)};
}

CoapMessage MessageOf(const coap_pdu_t* pdu) {
    CoapMessage message;
    message.type = static_cast<MessageType>(coap_pdu_get_type(pdu));
    message.code = static_cast<std::uint8_t>(coap_pdu_get_code(pdu));
    message.messageId = static_cast<std::uint16_t>(coap_pdu_get_mid(pdu));
    const coap_bin_const_t token = coap_pdu_get_token(pdu);
    message.token.assign(reinterpret_cast<const char*>(token.s), token.length);

    coap_opt_iterator_t iterator;
    coap_option_iterator_init(pdu, &iterator, COAP_OPT_ALL);
    while (const coap_opt_t* at = coap_option_next(&iterator)) {
        const char* value = reinterpret_cast<const char*>(coap_opt_value(at));
        message.Add(iterator.number, std::string(value, coap_opt_length(at)));
    }
    std::size_t length = 0;
    const std::uint8_t* data = nullptr;
    if (coap_get_data(pdu, &length, &data) != 0) {
        message.payload.assign(reinterpret_cast<const char*>(data), length);
    }
    return message;
}

// libcoap reads the beginning of a longer datagram and hands it on as if it were the whole.
bool MayBeCut(const CoapMessage& message) { return SerializeMessage(message).size() >= MAX_DATAGRAM; }

const std::uint8_t* BytesOf(const std::string& text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

// The options must stand in ascending order. Null where memory is short or the message too long.
coap_pdu_t* PduOf(const CoapMessage& message, std::uint16_t messageId) {
    coap_pdu_t* pdu = coap_pdu_init(static_cast<coap_pdu_type_t>(message.type),
                                    static_cast<coap_pdu_code_t>(message.code), messageId, MAX_DATAGRAM);
    bool whole = pdu != nullptr && (message.token.empty() ||
                                    coap_add_token(pdu, message.token.size(), BytesOf(message.token)) != 0);
    for (const CoapOption& option : message.options) {
        whole = whole && coap_add_option(pdu, option.number, option.value.size(), BytesOf(option.value)) != 0;
    }
    whole = whole && (message.payload.empty() ||
                      coap_add_data(pdu, message.payload.size(), BytesOf(message.payload)) != 0);
    if (!whole) {
        coap_delete_pdu(pdu);
        return nullptr;
    }
    return pdu;
}

coap_bin_const_t BinaryOf(const std::string& text) { return {text.size(), BytesOf(text)}; }

std::string_view TextOf(const coap_bin_const_t* binary) {
    return {reinterpret_cast<const char*>(binary->s), binary->length};
}

bool IsPath(coap_resource_t* resource, std::string_view path) {
    const coap_str_const_t* own = coap_resource_get_uri_path(resource);
    return path == std::string_view(reinterpret_cast<const char*>(own->s), own->length);
}

}  // namespace

CoapPort::CoapPort(Listener listener) : mListener(std::move(listener)) {}

CoapPort::~CoapPort() {
    while (!mChannels.empty()) {
        CloseChannel(mChannels.begin()->first);
    }
    ReleaseEnded();
    for (const auto& [path, session] : mPaths) {
        coap_session_release(session);
    }
    mContext.reset();  // tells of each session that it ends
}

bool CoapPort::CanSecure() {
    StartLibrary();
    return LUMORA_LINK_HAS_KEYS != 0 && coap_dtls_is_supported() != 0;
}

bool CoapPort::Open(std::optional<KeyRing> keys) {
    StartLibrary();
    mKeys = keys ? std::make_unique<const KeyRing>(std::move(*keys)) : nullptr;
    mContext.reset(coap_new_context(nullptr));
    if (mContext == nullptr) {
        return false;
    }
    coap_set_app_data(mContext.get(), this);
    coap_context_set_max_idle_sessions(mContext.get(), MAX_IDLE_SESSIONS);
    coap_context_set_max_handshake_sessions(mContext.get(), MAX_HANDSHAKES);
    coap_context_set_session_timeout(mContext.get(), SESSION_SECONDS);
    coap_register_response_handler(mContext.get(), OnResponse);
    coap_register_nack_handler(mContext.get(), OnNack);
    for (const char* path : {RESOURCE_PATH, HELLO_PATH, GOODBYE_PATH, WELL_KNOWN_PATH}) {
        if (!AddResource(path)) {
            return false;
        }
    }
    return Descriptor() >= 0 && (!IsSecured() || ServeSecurely());
}

// The hint is the name of our own key. A requester that holds keys for many devices chooses ours by it.
bool CoapPort::ServeSecurely() {
    coap_register_event_handler(mContext.get(), OnEvent);
    coap_dtls_spsk_t setup = {};
    setup.version = COAP_DTLS_SPSK_SETUP_VERSION;
    setup.validate_id_call_back = KeyOf;
    setup.id_call_back_arg = this;
    if (const Psk* own = mKeys->Own()) {
        setup.psk_info.hint = BinaryOf(own->identity);
        setup.psk_info.key = BinaryOf(own->key);
    }
    return coap_context_set_psk2(mContext.get(), &setup) != 0;
}

// libcoap copies what it is given for a session, and keeps pointers to what it is given for the context: the
// former ring goes when the context has the new one.
void CoapPort::UseKeys(KeyRing keys) {
    auto former = std::make_unique<const KeyRing>(std::move(keys));
    mKeys.swap(former);
    ServeSecurely();
    for (coap_session_t* session : mServed) {
        if (!HasValidKey(session)) {
            mRevoked.insert(session);
        }
    }
    for (const auto& [id, channel] : mChannels) {
        if (!HasValidKey(channel->session)) {
            mSessions.Retire(id);
        }
    }
}

const coap_bin_const_t* CoapPort::KeyOf(coap_bin_const_t* identity, coap_session_t*, void* port) {
    auto* own = static_cast<CoapPort*>(port);
    const Psk* psk = own->mKeys->Find(TextOf(identity));
    if (psk == nullptr) {
        return nullptr;
    }
    own->mServedKey = BinaryOf(psk->key);
    return &own->mServedKey;
}

// A peer of an earlier version gives no hint, and one whose key is not here expects ours.
const coap_dtls_cpsk_info_t* CoapPort::KeyForHint(coap_str_const_t* hint, coap_session_t*, void* port) {
    auto* own = static_cast<CoapPort*>(port);
    const Psk* psk = own->mKeys->Find({reinterpret_cast<const char*>(hint->s), hint->length});
    psk = psk != nullptr ? psk : own->mKeys->Own();
    if (psk == nullptr) {
        return nullptr;
    }
    own->mChosenKey = {BinaryOf(psk->identity), BinaryOf(psk->key)};
    return &own->mChosenKey;
}

bool CoapPort::HasValidKey(const coap_session_t* session) const {
    const coap_bin_const_t* identity = coap_session_get_psk_identity(session);
    const coap_bin_const_t* key = coap_session_get_psk_key(session);
    // A handshake that has not got to its key meets the new ones.
    return identity == nullptr || key == nullptr || mKeys->Has(TextOf(identity), TextOf(key));
}

// Its end reaches the other side as such, which then begins a session by another key.
void CoapPort::EndRevoked() {
    for (auto at = mRevoked.begin(); at != mRevoked.end();) {
        coap_session_t* session = *at;
        const bool answering = std::any_of(mPaths.begin(), mPaths.end(),
                                           [&](const auto& path) { return path.second == session; });
        if (answering) {
            ++at;
            continue;
        }
        at = mRevoked.erase(at);
        coap_session_disconnected(session, COAP_NACK_TLS_FAILED);
    }
}

bool CoapPort::AddResource(const char* path) {
    // libcoap makes a copy of the path otherwise, and goes on without one when memory is short.
    coap_str_const_t* name =
        coap_new_str_const(reinterpret_cast<const std::uint8_t*>(path), std::strlen(path));
    if (name == nullptr) {
        return false;
    }
    coap_resource_t* resource = coap_resource_init(name, COAP_RESOURCE_FLAGS_RELEASE_URI);
    if (resource == nullptr) {
        coap_delete_str_const(name);
        return false;
    }
    for (const coap_request_t method :
         {COAP_REQUEST_GET, COAP_REQUEST_PUT, COAP_REQUEST_POST, COAP_REQUEST_DELETE}) {
        coap_register_handler(resource, method, OnRequestOf);
    }
    coap_add_resource(mContext.get(), resource);
    return true;
}

int CoapPort::Descriptor() const { return coap_context_get_coap_fd(mContext.get()); }

bool CoapPort::Listen(const Endpoint& endpoint) {
    if (mEndpoints.count(endpoint) != 0) {
        return true;
    }
    const bool listens = ListenBy(COAP_PROTO_UDP, endpoint) &&
                         (!IsSecured() || ListenBy(COAP_PROTO_DTLS, SecuredPortOf(endpoint)));
    if (listens) {
        mEndpoints.insert(endpoint);
    }
    return listens;
}

bool CoapPort::ListenBy(coap_proto_t protocol, const Endpoint& endpoint) {
    const coap_address_t address = AddressOf(endpoint);
    const int descriptor = NextDescriptor(Descriptor());
    coap_endpoint_t* made = coap_new_endpoint(mContext.get(), &address, protocol);
    if (made == nullptr) {
        LINK_LOG_LIMITED(LEVEL_WARNING, "cannot listen on %s\n", EndpointText(endpoint).c_str());
        return false;
    }
    CloseOnExec(Descriptor());
    if (IsBoundTo(descriptor, endpoint)) {
        mEndpointSockets.push_back(descriptor);
    }
    coap_endpoint_set_default_mtu(made, MAX_DATAGRAM);
    return true;
}

bool CoapPort::IsClogged() const {
    return std::any_of(mEndpointSockets.begin(), mEndpointSockets.end(), IsHalfFull);
}

void CoapPort::Process() { coap_io_process(mContext.get(), COAP_IO_NO_WAIT); }

void CoapPort::Settle() {
    std::vector<ChannelId> connected;
    connected.swap(mConnected);
    for (const ChannelId channel : connected) {
        mSessions.OnConnected(channel, Clock::now());
    }
    mSessions.Tick(Clock::now());
    std::vector<ConversationId> refused;
    refused.swap(mRefused);
    for (const ConversationId conversation : refused) {
        mListener.onRefused(conversation);
    }
    std::vector<std::pair<ConversationId, std::uint16_t>> unacknowledged;
    unacknowledged.swap(mUnacknowledged);
    for (const auto& [conversation, messageId] : unacknowledged) {
        mListener.onUnacknowledged(conversation, messageId);
    }
    EndRevoked();
    ReleaseEnded();
}

void CoapPort::ReleaseEnded() {
    for (const auto& channel : mEnded) {
        // Without this, what waits for its acknowledgement would keep the session and its socket.
        coap_session_disconnected(channel->session, COAP_NACK_NOT_DELIVERABLE);
        coap_session_release(channel->session);
    }
    mEnded.clear();
}

void CoapPort::Transmit(ConversationId conversation, const Endpoint& to, const CoapMessage& message) {
    if (IsSecured()) {
        mSessions.Transmit(conversation, to, message, Clock::now());
        return;
    }
    // Without a descriptor for it the message is lost: that says nothing about the peer.
    const bool open = mChannels.count(conversation) != 0 || OpenChannel(conversation, to);
    if (open && !Send(conversation, message)) {
        OnRefused(conversation);
    }
}

void CoapPort::CloseConversation(ConversationId conversation) {
    if (IsSecured()) {
        mSessions.CloseConversation(conversation);
    } else {
        CloseChannel(conversation);
    }
}

void CoapPort::OnPeerGone(const Endpoint& endpoint) { mSessions.OnPeerGone(endpoint, Clock::now()); }

bool CoapPort::Open(SecuredSessions::SessionId session, const Endpoint& to) {
    return OpenChannel(session, to);
}

void CoapPort::Probe(SecuredSessions::SessionId session) {
    const auto channel = mChannels.find(session);
    if (channel == mChannels.end()) {
        return;
    }
    CoapMessage ping = MakePing();
    ping.token = "probe";  // of a length that no conversation's tokens have
    ping.messageId = coap_new_message_id(channel->second->session);
    Write(session, ping);
}

void CoapPort::Write(SecuredSessions::SessionId session, const CoapMessage& message) {
    if (mChannels.count(session) != 0 && !Send(session, message)) {
        mSessions.OnFailed(session, true);
    }
}

bool CoapPort::OpenChannel(ChannelId channel, const Endpoint& to) {
    auto made = std::make_unique<Channel>();
    made->id = channel;
    const int descriptor = NextDescriptor(Descriptor());
    made->session = NewSession(to);
    if (made->session == nullptr) {
        if (!DescriptorsAreLeft(1)) {
            LINK_LOG_LIMITED(LEVEL_ERROR, "no descriptors left to ask a node\n");
        }
        return false;
    }
    if (!CloseOnExecIfConnected(descriptor, IsSecured() ? SecuredPortOf(to) : to)) {
        CloseOnExec(Descriptor());
    }
    coap_session_set_app_data(made->session, made.get());
    coap_session_set_mtu(made->session, MAX_DATAGRAM);
    if (!IsSecured()) {
        coap_session_set_ack_random_factor(made->session, EXACTLY);
        coap_session_set_max_retransmit(made->session, 1);
    }
    coap_session_set_nstart(made->session, UNLIMITED);
    mChannels.emplace(channel, std::move(made));
    return true;
}

// Where memory is short the message is lost like any other.
bool CoapPort::Send(ChannelId channel, const CoapMessage& message) {
    Channel& known = *mChannels.at(channel);
    coap_pdu_t* pdu = PduOf(message, message.messageId);
    coap_session_set_ack_timeout(known.session, Watch(known, message) ? FIRST_THIRD : NEVER_REPEAT);
    errno = 0;
    return pdu == nullptr || coap_send(known.session, pdu) != COAP_INVALID_MID || errno != ECONNREFUSED;
}

// Whether libcoap shall tell if this copy of a request stays unacknowledged. One copy of a message is enough:
// an acknowledgement of any copy takes the one out of libcoap's queue that is due first, and that is this
// one.
bool CoapPort::Watch(Channel& channel, const CoapMessage& message) const {
    const bool request = !IsSecured() && PathOf(message) == RESOURCE_PATH;
    if (!request || channel.watched == message.messageId) {
        return false;
    }
    channel.watched = message.messageId;
    return true;
}

// The next copy is watched anew, because the listener may go on with the conversation.
void CoapPort::OnUnacknowledged(ChannelId channel, const coap_pdu_t* sent) {
    const auto known = mChannels.find(channel);
    const auto messageId = static_cast<std::uint16_t>(coap_pdu_get_mid(sent));
    if (known != mChannels.end() && known->second->watched == messageId) {
        known->second->watched.reset();
        mUnacknowledged.emplace_back(channel, messageId);
    }
}

void CoapPort::CloseChannel(ChannelId channel) {
    const auto known = mChannels.find(channel);
    if (known == mChannels.end()) {
        return;
    }
    // libcoap may hold events of this session that it has not looked at yet; Settle closes it.
    coap_session_set_app_data(known->second->session, nullptr);
    mEnded.push_back(std::move(known->second));
    mChannels.erase(known);
}

// No local address: libcoap would bind with SO_REUSEADDR, and then the kernel may give the port of
// another node's endpoint to this socket.
coap_session_t* CoapPort::NewSession(const Endpoint& to) {
    if (!IsSecured()) {
        const coap_address_t address = AddressOf(to);
        return coap_new_client_session(mContext.get(), nullptr, &address, COAP_PROTO_UDP);
    }
    const coap_address_t address = AddressOf(SecuredPortOf(to));
    coap_dtls_cpsk_t setup = {};
    setup.version = COAP_DTLS_CPSK_SETUP_VERSION;
    const Psk* own = mKeys->Own();
    if (own == nullptr) {
        return nullptr;  // all have expired
    }
    setup.psk_info.identity = BinaryOf(own->identity);
    setup.psk_info.key = BinaryOf(own->key);
    setup.validate_ih_call_back = KeyForHint;
    setup.ih_call_back_arg = this;
    return coap_new_client_session_psk2(mContext.get(), nullptr, &address, COAP_PROTO_DTLS, &setup);
}

void CoapPort::Reply(ReplyPath path, const CoapMessage& message) {
    const auto at = mPaths.find(path);
    if (at == mPaths.end()) {
        return;
    }
    coap_session_t* session = at->second;
    const bool own = message.type == MessageType::Acknowledgement;
    const std::uint16_t messageId = own ? message.messageId : coap_new_message_id(session);
    if (coap_pdu_t* pdu = PduOf(message, messageId)) {
        coap_session_set_ack_timeout(session, {1, 0});
        coap_session_set_nstart(session, UNLIMITED);
        coap_send(session, pdu);
    }
}

void CoapPort::Forget(ReplyPath path) {
    const auto at = mPaths.find(path);
    if (at != mPaths.end()) {
        coap_session_release(at->second);
        mPaths.erase(at);
    }
}

void CoapPort::SetLogLevel(int level) {
    static const coap_log_t LEVELS[] = {LOG_EMERG, LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG};
    const int last = static_cast<int>(sizeof LEVELS / sizeof LEVELS[0]) - 1;
    StartLibrary();
    coap_set_log_level(LEVELS[std::clamp(level, 0, last)]);
}

void CoapPort::OnRequestOf(coap_resource_t* resource, coap_session_t* session, const coap_pdu_t* request,
                           const coap_string_t*, coap_pdu_t* response) {
    auto* port = static_cast<CoapPort*>(coap_get_app_data(coap_session_get_context(session)));
    const bool byKey = coap_session_get_proto(session) == COAP_PROTO_DTLS && port->HasValidKey(session);
    if (port->IsSecured() && !byKey && IsPath(resource, RESOURCE_PATH)) {
        coap_pdu_set_code(response, COAP_RESPONSE_CODE_UNAUTHORIZED);
        return;
    }
    const coap_pdu_type_t answerType = coap_pdu_get_type(response);
    // An empty response that is not confirmable is not sent: the real one follows by Reply.
    coap_pdu_set_type(response, COAP_MESSAGE_NON);
    RunGuarded([&] {
        const CoapMessage message = MessageOf(request);
        if (MayBeCut(message)) {
            coap_pdu_set_type(response, answerType);
            coap_pdu_set_code(response, COAP_RESPONSE_CODE_REQUEST_TOO_LARGE);
            return;
        }
        const ReplyPath path = ++port->mLastPath;
        // In this order: what memory is short for must not keep the session, which libcoap does not forgive.
        port->mPaths.emplace(path, session);
        coap_session_reference(session);
        const coap_bin_const_t* identity = byKey ? coap_session_get_psk_identity(session) : nullptr;
        port->mListener.onRequest(message, EndpointOf(coap_session_get_addr_remote(session)),
                                  EndpointOf(coap_session_get_addr_local(session)).host, path,
                                  std::string(identity != nullptr ? TextOf(identity) : ""));
    });
}

void CoapPort::TellProof(const coap_session_t* session) const {
    const coap_bin_const_t* identity = IsSecured() ? coap_session_get_psk_identity(session) : nullptr;
    if (identity != nullptr && mListener.onProof) {
        mListener.onProof(PlainPortOf(EndpointOf(coap_session_get_addr_remote(session))),
                          std::string(TextOf(identity)));
    }
}

CoapPort::ChannelId CoapPort::ChannelOf(const coap_session_t* session) {
    const auto* channel = static_cast<const Channel*>(coap_session_get_app_data(session));
    return channel == nullptr ? 0 : channel->id;
}

coap_response_t CoapPort::OnResponse(coap_session_t* session, const coap_pdu_t*, const coap_pdu_t* received,
                                     coap_mid_t) {
    RunGuarded([&] {
        auto* port = static_cast<CoapPort*>(coap_get_app_data(coap_session_get_context(session)));
        const ChannelId channel = ChannelOf(session);
        if (channel == 0) {
            return;
        }
        CoapMessage answer = MessageOf(received);
        if (MayBeCut(answer)) {
            answer.code = code::TOO_LARGE;
            answer.payload.clear();
        }
        const auto conversation = port->IsSecured()
                                      ? port->mSessions.OnAnswer(channel, answer.token, Clock::now())
                                      : std::make_optional(channel);
        if (conversation) {
            port->TellProof(session);
            port->mListener.onAnswer(*conversation, answer);
        }
    });
    return COAP_RESPONSE_OK;
}

void CoapPort::OnNack(coap_session_t* session, const coap_pdu_t* sent, coap_nack_reason_t reason,
                      coap_mid_t) {
    const ChannelId channel = ChannelOf(session);
    const bool refused = reason == COAP_NACK_ICMP_ISSUE || reason == COAP_NACK_RST;
    const bool unacknowledged = reason == COAP_NACK_TOO_MANY_RETRIES && sent != nullptr;
    if ((!refused && !unacknowledged) || channel == 0) {
        return;
    }
    // Told later: libcoap is walking through the very messages that the listener may end.
    RunGuarded([&] {
        auto* port = static_cast<CoapPort*>(coap_get_app_data(coap_session_get_context(session)));
        if (unacknowledged) {
            port->OnUnacknowledged(channel, sent);
        } else if (port->IsSecured()) {
            port->mSessions.OnFailed(channel, reason == COAP_NACK_ICMP_ISSUE);
        } else {
            port->OnRefused(channel);
        }
    });
}

// Every end of a session is told here first, whatever the reason.
int CoapPort::OnEvent(coap_session_t* session, coap_event_t event) {
    const ChannelId channel = ChannelOf(session);
    auto* port = static_cast<CoapPort*>(coap_get_app_data(coap_session_get_context(session)));
    if (event == COAP_EVENT_SERVER_SESSION_DEL) {
        port->mServed.erase(session);
        port->mRevoked.erase(session);
    }
    RunGuarded([&] {
        if (event == COAP_EVENT_SERVER_SESSION_NEW && coap_session_get_proto(session) == COAP_PROTO_DTLS) {
            port->mServed.insert(session);
        } else if (channel == 0) {
            return;
        } else if (event == COAP_EVENT_DTLS_CONNECTED) {
            port->mConnected.push_back(channel);
        } else if (event == COAP_EVENT_DTLS_ERROR || event == COAP_EVENT_DTLS_CLOSED) {
            port->mSessions.OnFailed(channel, false);
        }
    });
    return 0;
}

}  // namespace lumora_link
