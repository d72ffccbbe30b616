#include "hub/web/site.h"

#include <algorithm>
#include <charconv>

#include "hub/web/block_flow.h"
#include "hub/web/content_type.h"
#include "hub/web/json_texts.h"
#include "hub/web/resources.h"

namespace lumora_hub::web {
namespace {

constexpr const char* JSON = "application/json";
constexpr const char* EVENT_STREAM = "text/event-stream";

Decision Now(Reply reply) {
    Decision decision;
    decision.reply = std::move(reply);
    return decision;
}

Decision Fail(int status, const std::string& text) { return Now(Site::Error(status, text)); }

Decision Later(std::chrono::milliseconds patience) {
    Decision decision;
    decision.kind = Decision::Kind::WAIT;
    decision.patience = patience;
    return decision;
}

Reply Text(const char* type, std::string text) {
    Reply reply;
    reply.contentType = type;
    reply.text = std::move(text);
    return reply;
}

Reply SeeOther(const char* path) {
    Reply reply = Text("text/plain; charset=utf-8", "");
    reply.status = 303;
    reply.headers.emplace_back("location:", path);
    return reply;
}

const char* TypeOfFile(std::string_view name) {
    const std::string_view ending = name.substr(name.rfind('.') + 1);
    return ending == "js"     ? "text/javascript; charset=utf-8"
           : ending == "css"  ? "text/css; charset=utf-8"
           : ending == "svg"  ? "image/svg+xml"
           : ending == "json" ? JSON
                              : "text/html; charset=utf-8";
}

Reply File(const std::string& name) {
    const Resource* const resource = FindResource(name);
    return resource == nullptr ? Site::Error(404, "there is no such page")
                               : Text(TypeOfFile(name), std::string(resource->bytes));
}

std::string FileOfPath(const std::string& path) {
    return path == "/" ? "index.html" : path == "/login" ? "login.html" : path.substr(path.rfind('/') + 1);
}

Reply OfOutcome(Outcome outcome) {
    switch (outcome) {
        case Outcome::DONE:
            return Text(JSON, "{\"done\":true}");
        case Outcome::NO_DEVICE:
            return Site::Error(404, "there is no such device");
        case Outcome::UNREACHABLE:
            return Site::Error(504, "no channel to the device could be opened");
        case Outcome::REFUSED:
            return Site::Error(502, "the device refused, or did not answer");
        case Outcome::BAD_REQUEST:
            return Site::Error(400, "the device takes no such name or size");
        case Outcome::BUSY:
            break;
    }
    return Site::Error(503, "too many requests wait");
}

Reply OfBlock(const BlockPointer& block) {
    Reply reply;
    reply.contentType = ContentType(block->bytes);
    reply.block = block;
    using std::chrono::milliseconds;
    const auto time = std::chrono::duration_cast<milliseconds>(block->received.time_since_epoch()).count();
    reply.headers.emplace_back("x-lumora-number:", std::to_string(block->number));
    reply.headers.emplace_back("x-lumora-received:", std::to_string(time));
    return reply;
}

// A smaller limit of the client's wish. False if the wish is no number.
bool ReadLimit(const Request& request, const char* name, std::size_t& limit) {
    const auto wish = request.query.find(name);
    if (wish == request.query.end()) {
        return true;
    }
    std::size_t value = 0;
    const char* const end = wish->second.data() + wish->second.size();
    const auto [stop, error] = std::from_chars(wish->second.data(), end, value);
    limit = std::min(limit, value);
    return error == std::errc() && stop == end && value > 0;
}

}  // namespace

Site::Site(DeviceHub& hub, const WebOptions& options)
    : mHub(hub),
      mOptions(options),
      mAdmission(options),
      mNews(hub),
      mLatest(hub, options.limits.latestServices, [this](std::uint64_t number) {
          return [mailbox = mMailbox, number] { mailbox->PutReady(number); };
      }) {}

Site::~Site() = default;

Reply Site::Error(int status, const std::string& text) {
    Reply reply = Text(JSON, ErrorText(text));
    reply.status = status;
    if (status == 503) {
        reply.headers.emplace_back("retry-after:", "1");
    }
    return reply;
}

Decision Site::Begin(std::uint64_t number, const Request& request) {
    const Match match = FindRoute(request.method, request.path);
    const Verdict verdict = mAdmission.Judge(request, match.route != nullptr && match.route->isOpen);
    if (verdict != Verdict::ADMITTED) {
        ++mCounts.rejected;
        return verdict == Verdict::BAD_HOST         ? Fail(421, "the hub has no such name; see --host-name")
               : verdict == Verdict::FOREIGN_ORIGIN ? Fail(403, "pages of other sites may not use the hub")
                                                    : Now(Unauthorized(request));
    }
    if (match.route == nullptr) {
        return match.hasPath ? Fail(405, "there is no such method here")
                             : Fail(404, "there is no such address");
    }
    if (request.wantsWebSocket ? !match.route->mayBeWebSocket : match.route->mustBeWebSocket) {
        return Fail(request.wantsWebSocket ? 400 : 426, "a WebSocket belongs to a stream");
    }
    if (request.method != Method::POST && request.contentLength.value_or(0) > 0) {
        return Fail(400, "this request has no body");
    }
    return Act(number, request, match);
}

Decision Site::Act(std::uint64_t number, const Request& request, const Match& match) {
    switch (match.route->action) {
        case Action::PAGE:
            return Now(File(FileOfPath(request.path)));
        case Action::DESCRIPTION:
            return Now(File("openapi.json"));
        case Action::HEALTH:
            return Now(Text("text/plain; charset=utf-8", "ok\n"));
        case Action::METRICS: {
            std::uint64_t lost = 0;
            for (const ConsumerState& consumer : mHub.Consumers()) {
                lost += consumer.name == "web" ? consumer.counts.lost : 0;
            }
            return Now(Text("text/plain; version=0.0.4; charset=utf-8", MetricsText(mHub, mCounts, lost)));
        }
        case Action::DEVICES:
            return Now(Text(JSON, DevicesText(mHub.Devices())));
        case Action::DEVICE:
            return Now(Device(match.device));
        case Action::LATEST:
            return Latest(number, match);
        case Action::LOGOUT:
            return Now(LogOut(request));
        case Action::LOGIN:
            return AwaitBody(request, mOptions.limits.commandBytes);
        case Action::COMMAND:
            return request.contentType.rfind(JSON, 0) == 0 ? AwaitBody(request, mOptions.limits.commandBytes)
                                                           : Fail(415, "a command is application/json");
        case Action::DATA:
            return AwaitBody(request, mOptions.limits.requestBytes);
        case Action::DEVICE_EVENTS: {
            Reply reply = Text(EVENT_STREAM, "");
            reply.flow = std::make_unique<DeviceFlow>(
                mNews, request.wantsWebSocket ? Framing::WEB_SOCKET : Framing::SERVER_SENT_EVENTS);
            return Now(std::move(reply));
        }
        case Action::BLOCK_EVENTS:
        case Action::BLOCK_STREAM:
            break;
    }
    return Stream(number, request, match);
}

Decision Site::AwaitBody(const Request& request, std::size_t limit) {
    if (request.hasTransferEncoding || !request.contentLength) {
        return Fail(411, "the request needs a Content-Length");
    }
    if (*request.contentLength > limit) {
        return Fail(413, "the body is too large");
    }
    if (*request.contentLength == 0) {
        return Fail(400, "the body is empty");
    }
    if (IsFull() || mUploading + *request.contentLength > mOptions.limits.uploadingBytes) {
        return Fail(503, "too many requests wait");
    }
    Decision decision;
    decision.kind = Decision::Kind::BODY;
    decision.bodyBytes = *request.contentLength;
    mUploading += decision.bodyBytes;
    return decision;
}

Decision Site::TakeBody(std::uint64_t number, const Request& request, std::string body) {
    const Match match = FindRoute(request.method, request.path);
    switch (match.route->action) {
        case Action::COMMAND:
            return SendCommand(number, match, body);
        case Action::DATA:
            return SendBlock(number, match, std::move(body));
        default:
            return LogIn(request, body);
    }
}

// The request gets a number of its own: its connection may give up and ask again meanwhile.
DeviceHub::Done Site::DoneFor(std::uint64_t number) {
    const std::uint64_t request = ++mLastNumber;
    mPending[request] = number;
    return [mailbox = mMailbox, request](Outcome outcome) { mailbox->PutOutcome(request, outcome); };
}

Decision Site::SendCommand(std::uint64_t number, const Match& match, const std::string& body) {
    std::string name;
    std::string parameter;
    if (!ReadCommand(body, name, parameter)) {
        return Fail(400, "a command is {\"name\": text, \"parameter\": text}");
    }
    if (IsFull()) {
        return Fail(503, "too many requests wait");
    }
    mHub.SendCommand(match.device, name, parameter, DoneFor(number));
    return Later(mOptions.limits.outcome);
}

Decision Site::SendBlock(std::uint64_t number, const Match& match, std::string body) {
    if (IsFull()) {
        return Fail(503, "too many requests wait");
    }
    mHub.SendBlock(match.device, std::move(body), DoneFor(number));
    return Later(mOptions.limits.outcome);
}

Decision Site::LogIn(const Request& request, const std::string& body) {
    const auto form = ReadForm(body);
    const auto token = form.find("token");
    if (!mAdmission.NeedsToken()) {
        return Now(SeeOther("/"));
    }
    if (token == form.end() || !mAdmission.IsToken(token->second)) {
        ++mCounts.rejected;
        Reply reply = File("login.html");
        reply.status = 403;
        return Now(std::move(reply));
    }
    const std::string value = mAdmission.LogIn();
    if (value.empty()) {
        return Fail(503, "the system has no random bytes");
    }
    Reply reply = SeeOther("/");
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Admission::LOGIN_TIME).count();
    reply.headers.emplace_back("set-cookie:",
                               std::string(Admission::COOKIE) + "=" + value +
                                   "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(seconds) +
                                   (request.isTls ? "; Secure" : ""));
    return Now(std::move(reply));
}

Reply Site::LogOut(const Request& request) {
    mAdmission.LogOut(request);
    Reply reply = SeeOther("/login");
    reply.headers.emplace_back(
        "set-cookie:", std::string(Admission::COOKIE) + "=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0");
    return reply;
}

Reply Site::Device(const std::string& name) const {
    const std::optional<DeviceState> device = mHub.FindDevice(name);
    return device ? Text(JSON, DeviceText(*device)) : Error(404, "there is no such device");
}

Decision Site::Latest(std::uint64_t number, const Match& match) {
    BlockPointer block;
    if (!mLatest.Ask(match.device, match.service, ++mLastNumber, block)) {
        return Fail(503, "too many services are asked for");
    }
    if (block) {
        return Now(OfBlock(block));
    }
    mAwaitingBlock[number] = {match.device, match.service};
    return Later(mOptions.limits.latest);
}

Decision Site::Stream(std::uint64_t number, const Request& request, const Match& match) {
    QueueLimits limits{mOptions.limits.streamBlocks, mOptions.limits.streamBytes};
    if (!ReadLimit(request, "blocks", limits.blocks) || !ReadLimit(request, "bytes", limits.bytes)) {
        return Fail(400, "blocks and bytes are numbers above 0");
    }
    if (mCounts.streams >= mOptions.limits.streams) {
        return Fail(503, "too many streams are open");
    }
    auto consumer = std::make_shared<Consumer>("web", limits,
                                               [mailbox = mMailbox, number] { mailbox->PutReady(number); });
    std::unique_ptr<Registration> registration = mHub.Subscribe(match.device, match.service, consumer);
    if (!registration) {
        return Fail(503, "the hub has too many consumers");
    }
    Reply reply = Text(EVENT_STREAM, "");
    reply.flow = std::make_unique<BlockFlow>(
        std::move(consumer), std::move(registration),
        request.wantsWebSocket ? Framing::WEB_SOCKET : Framing::SERVER_SENT_EVENTS, mCounts);
    return Now(std::move(reply));
}

// People get the form, programs the status.
Reply Site::Unauthorized(const Request& request) const {
    if (request.path == "/") {
        return SeeOther("/login");
    }
    Reply reply = Error(401, "the token is missing or wrong");
    reply.headers.emplace_back("www-authenticate:", "Bearer");
    return reply;
}

void Site::Forget(std::uint64_t number) {
    mAwaitingBlock.erase(number);
    for (auto& [request, connection] : mPending) {
        connection = connection == number ? 0 : connection;
    }
}

Site::Mailing Site::TakeMail() {
    Mailing mailing;
    Mailbox::Mail mail = mMailbox->TakeAll();
    for (const auto& [request, outcome] : mail.outcomes) {
        const auto pending = mPending.find(request);
        if (pending != mPending.end()) {
            if (pending->second != 0) {
                mailing.replies.push_back({pending->second, OfOutcome(outcome)});
            }
            mPending.erase(pending);
        }
    }
    for (const std::uint64_t number : mail.ready) {
        BlockPointer block;
        const auto key = mLatest.Take(number, block);
        for (auto waiting = mAwaitingBlock.begin(); block && waiting != mAwaitingBlock.end();) {
            const bool isMeant = waiting->second == key;
            if (isMeant) {
                mailing.replies.push_back({waiting->first, OfBlock(block)});
            }
            waiting = isMeant ? mAwaitingBlock.erase(waiting) : std::next(waiting);
        }
    }
    mNews.Take(mail.events);
    mailing.hasNews = !mail.events.empty();
    mailing.streams = std::move(mail.ready);
    return mailing;
}

// The watch begins with the first call, when the mailbox is open.
void Site::Tick() {
    if (!mWatch) {
        mWatch = mHub.Watch([mailbox = mMailbox](const DeviceEvent& event) { mailbox->PutEvent(event); });
    }
    mLatest.DropOld();
    mNews.TakeCounts();
}

}  // namespace lumora_hub::web
