// The web face of the hub: requests of strangers at a site without a token and at one with a token, and what
// devices send, in any order.
#include <openssl/evp.h>

#include <map>
#include <memory>
#include <set>
#include <utility>

#include "hub/web/content_type.h"
#include "hub/web/json_texts.h"
#include "hub/web/site.h"
#include "tests/fuzz/hub_names.h"
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/require.h"
#include "tests/hub/support/scripted_hub.h"

using lumora_fuzz::Require;
using namespace lumora_hub;
using namespace lumora_hub::web;
using lumora_hub_test::ScriptedHub;

namespace {

// What a record of a script is. See README.md.
enum Kind : std::uint8_t { REQUEST, APPEAR, LEAVE, BLOCK, MAIL, OUTCOME, CLOSE, READ, KINDS };

constexpr const char* TOKEN = "0123456789abcdef";
constexpr const char* HOST = "127.0.0.1:8666";
constexpr std::size_t MOST_CONNECTIONS = 32;

WebOptions OptionsWith(const char* token) {
    WebOptions options;
    options.token = token;
    options.limits.pendingRequests = 4;
    options.limits.streams = 4;
    options.limits.latestServices = 2;
    options.limits.uploadingBytes = 2000;
    options.limits.requestBytes = 1000;
    options.limits.commandBytes = 500;
    return options;
}

Method MethodOf(const std::string& word) {
    return word == "GET"    ? Method::GET
           : word == "HEAD" ? Method::HEAD
           : word == "POST" ? Method::POST
                            : Method::OTHER;
}

// A head as HTTP has it, a line for each field, and the body behind an empty line.
Request RequestOf(const std::string& text, std::string& body) {
    Request request;
    request.host = HOST;
    const std::size_t end = text.find("\n\n");
    body = end == text.npos ? "" : text.substr(end + 2);
    const std::vector<std::string> lines = lumora_fuzz::Cut(text.substr(0, end), '\n');
    const std::size_t blank = lines[0].find(' ');
    const std::string target = blank == text.npos ? "/" : lines[0].substr(blank + 1);
    request.method = MethodOf(lines[0].substr(0, blank));
    request.path = PercentDecode(target.substr(0, target.find('?')));
    request.query = ReadForm(target.find('?') == target.npos ? "" : target.substr(target.find('?') + 1));
    const std::map<std::string, std::string*> fields = {{"host", &request.host},
                                                        {"origin", &request.origin},
                                                        {"authorization", &request.authorization},
                                                        {"cookie", &request.cookie},
                                                        {"content-type", &request.contentType},
                                                        {"sec-fetch-site", &request.fetchSite}};
    for (std::size_t at = 1; at < lines.size(); ++at) {
        const std::size_t colon = lines[at].find(": ");
        const auto field = fields.find(lines[at].substr(0, colon));
        if (field != fields.end() && colon != text.npos) {
            *field->second = lines[at].substr(colon + 2);
        }
        request.wantsWebSocket = request.wantsWebSocket || lines[at] == "upgrade: websocket";
        request.hasTransferEncoding =
            request.hasTransferEncoding || lines[at] == "transfer-encoding: chunked";
    }
    if (!body.empty()) {
        request.contentLength = body.size();
    }
    return request;
}

// The text of a server-sent event, put together as a browser does.
std::string TextOfEvent(const std::string& event, std::string& name) {
    std::string text;
    bool isFirst = true;
    for (const std::string& line : lumora_fuzz::Cut(event, '\n')) {
        if (line.compare(0, 7, "event: ") == 0) {
            name = line.substr(7);
        } else if (line.compare(0, 6, "data: ") == 0) {
            text += (isFirst ? "" : "\n") + line.substr(6);
            isFirst = false;
        } else {
            Require(line.empty() || line.compare(0, 4, "id: ") == 0, "an event has no other lines");
        }
    }
    return text;
}

std::string FromBase64(const std::string& text) {
    std::string bytes(text.size(), '\0');
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    Require(length >= 0, "base64 can be decoded");
    const std::size_t padding = text.size() - std::min(text.size(), text.find_last_not_of('=') + 1);
    bytes.resize(static_cast<std::size_t>(length) - padding);
    return bytes;
}

// A connection whose reply goes on.
struct Reader {
    std::unique_ptr<Flow> flow;
    bool isWebSocket = false;
    std::string message;
    bool isGreeted = false;  // a stream of events begins with a line that is no event
};

// A site, and what a server keeps of its connections.
class Served {
public:
    Served(ScriptedHub& hub, const FigureBoard& figures, const char* token)
        : mHasToken(*token != '\0'), mOptions(OptionsWith(token)), mSite(hub, figures, mOptions) {
        mSite.Mail()->Open([] {});
        mSite.Tick();
    }
    ~Served() { mSite.Mail()->Close(); }
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

    void Take(const Request& request, const std::string& body) {
        if (mReaders.size() + mWaiting.size() >= MOST_CONNECTIONS) {
            return;
        }
        const std::uint64_t number = ++mLast;
        Decision decision = mSite.Begin(number, request);
        RequireRights(request, decision);
        if (decision.kind == Decision::Kind::BODY) {
            Require(decision.bodyBytes == body.size() && body.size() <= mOptions.limits.requestBytes,
                    "a body that is received is within its limit");
            decision = mSite.TakeBody(number, request, body);
            RequireRights(request, decision);
        }
        Require(decision.kind != Decision::Kind::BODY, "a body is received once");
        if (decision.kind == Decision::Kind::WAIT) {
            Require(decision.patience.count() > 0, "a wait has an end");
            mWaiting.insert(number);
        } else {
            Check(decision.reply, request, number);
        }
    }

    void TakeMail() {
        Site::Mailing mailing = mSite.TakeMail();
        for (Site::LateReply& late : mailing.replies) {
            if (mWaiting.erase(late.number) != 0) {
                Check(late.reply, {}, late.number);
            }
        }
    }
    void Tick() { mSite.Tick(); }

    void Close(std::uint8_t which) {
        if (!mWaiting.empty()) {
            const auto place =
                std::next(mWaiting.begin(), static_cast<std::ptrdiff_t>(which % mWaiting.size()));
            mSite.Forget(*place);
            mWaiting.erase(place);
        }
        if (!mReaders.empty()) {
            mReaders.erase(std::next(mReaders.begin(), static_cast<std::ptrdiff_t>(which % mReaders.size())));
        }
    }

    void Read(std::size_t size, const std::set<std::string>& blocks) {
        std::vector<char> room(size + 1);
        for (auto& [number, reader] : mReaders) {
            const Piece piece = reader.flow->Fill(room.data(), size);
            Require(piece.size <= size, "a piece is within its room");
            Require(piece.size == 0 || piece.isFirst == reader.message.empty(), "the first piece is known");
            reader.message.append(room.data(), piece.size);
            if (piece.isLast && !reader.message.empty()) {
                CheckMessage(reader, blocks);
                reader.message.clear();
            }
        }
    }

    void CheckMetrics() {
        Request request;
        request.method = Method::GET;
        request.path = "/metrics";
        request.host = HOST;
        request.authorization = std::string("Bearer ") + TOKEN;
        const Decision decision = mSite.Begin(++mLast, request);
        Require(decision.reply.status == 200, "there are metrics");
        std::vector<std::string> lines = lumora_fuzz::Cut(decision.reply.text, '\n');
        Require(lines.back().empty() && IsText(decision.reply.text), "metrics are lines of text");
        lines.pop_back();
        std::set<std::string> series;
        for (const std::string& line : lines) {
            const std::size_t blank = line.rfind(' ');
            Require(line[0] == '#' || series.insert(line.substr(0, blank)).second,
                    "no series is there twice");
            Require(line[0] == '#' || (blank != line.npos && blank + 1 < line.size() &&
                                       line.find_first_not_of("0123456789.e-+", blank + 1) == line.npos),
                    "a line of the metrics ends with a number");
        }
    }

private:
    void RequireRights(const Request& request, const Decision& decision) const {
        const bool isRefused = decision.kind == Decision::Kind::REPLY && !decision.reply.flow &&
                               (decision.reply.status == 401 || decision.reply.status == 403 ||
                                decision.reply.status == 421 || decision.reply.status == 303);
        const Match match = FindRoute(request.method, request.path);
        const bool isOpen = match.route != nullptr && match.route->isOpen;
        // The cookie of a login cannot be guessed.
        const bool hasToken = request.authorization == std::string("Bearer ") + TOKEN;
        Require(isRefused || isOpen || !mHasToken || hasToken, "what is not open needs the token");
        const bool isForeign = !request.origin.empty() && request.origin != "http://" + request.host &&
                               request.origin.find("://" + request.host) == std::string::npos;
        Require(isRefused || !isForeign || (isOpen && request.method != Method::POST),
                "foreign pages are refused");
        const std::string name = HostName(request.host);
        Require(isRefused || name.find("evil") == std::string::npos, "foreign names are refused");
    }

    void Check(Reply& reply, const Request& request, std::uint64_t number) {
        for (const auto& [name, value] : reply.headers) {
            Require(value.find_first_of("\r\n") == value.npos && name.back() == ':', "a header is one line");
        }
        if (reply.flow) {
            mReaders[number] = {std::move(reply.flow), request.wantsWebSocket, {}, false};
            return;
        }
        if (reply.contentType == "application/json" && !reply.block) {
            Require(lumora_fuzz::WholeDocument(reply.text) != nullptr, "a document is JSON");
        }
        if (reply.block) {
            Require(reply.contentType == ContentType(reply.block->bytes), "a block has its type");
        }
    }

    static void CheckMessage(Reader& reader, const std::set<std::string>& blocks) {
        if (!reader.isWebSocket && !std::exchange(reader.isGreeted, true)) {
            Require(reader.message == "retry: 500\n\n", "a stream of events says when to come back");
            return;
        }
        std::string name;
        const bool isBlock = reader.flow->IsBinary();
        std::string text = reader.isWebSocket ? reader.message : TextOfEvent(reader.message, name);
        if (!isBlock) {
            Require(lumora_fuzz::WholeDocument(text) != nullptr, "news of devices are JSON");
            return;
        }
        if (reader.isWebSocket) {
            Require(text.size() >= 24 && text[0] == 1, "a message has its head");
            text.erase(0, 24);
        } else if (name == "base64") {
            text = FromBase64(text);
        } else {
            Require(IsText(text), "the event of a text is one");
        }
        Require(blocks.count(text) != 0, "a stream has the bytes of the blocks");
    }

    const bool mHasToken;
    const WebOptions mOptions;
    Site mSite;
    std::uint64_t mLast = 0;
    std::set<std::uint64_t> mWaiting;
    std::map<std::uint64_t, Reader> mReaders;
};

std::string Escaped(const std::string& text) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string escaped;
    for (const char byte : text) {
        const auto value = static_cast<unsigned char>(byte);
        escaped += {'%', DIGITS[value >> 4], DIGITS[value & 15]};
    }
    return escaped;
}

void RequireRoundTrips(const std::string& text) {
    Require(PercentDecode(Escaped(text)) == text, "what is escaped is decoded");
    const auto form = ReadForm("a=" + Escaped(text) + "&b");
    Require(form.at("a") == text && form.at("b").empty(), "a form has its values");
    if (!text.empty()) {
        const Match match = FindRoute(Method::GET, "/api/devices/" + Escaped(text));
        Require(match.route != nullptr && match.device == text, "a name is found in a path");
    }
    const std::string host = HostName(text);
    Require(host.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ") == host.npos && host.size() <= text.size(),
            "the name of a host is in lower case");
    std::string name;
    std::string parameter;
    if (ReadCommand(text, name, parameter)) {
        Require(!name.empty() && name.size() + parameter.size() < text.size(),
                "a command is part of its text");
    }
    const std::string type = ContentType(text);
    Require(type != "application/json" || lumora_fuzz::WholeDocument(text) != nullptr,
            "what is called JSON is JSON");
    Require((type.compare(0, 4, "text") != 0 && type != "application/json") || IsText(text),
            "what is called text is text");
    Require(SameSecret(text, text) && !SameSecret(text, text + "x"), "secrets are compared as a whole");
    Require(lumora_fuzz::WholeDocument(ErrorText(text.substr(0, text.find('\0')))) != nullptr,
            "an error is JSON");
}

// One device at a time, whatever its names.
class World {
public:
    void Play(const lumora_fuzz::Record& record) {
        const std::string& bytes = record.bytes;
        switch (record.kind % KINDS) {
            case REQUEST:
                Ask(bytes);
                break;
            case APPEAR:
                mDevice = lumora_fuzz::DeviceOf(bytes);
                mHub.Appear(mDevice);
                break;
            case LEAVE:
                if (mHub.FindDevice(mDevice.id)) {
                    bytes.empty() ? mHub.Leave(mDevice.id) : mHub.Forget(mDevice.id);
                }
                break;
            case BLOCK:
                SendBlock(bytes);
                break;
            case MAIL:
                mOpen.TakeMail();
                mClosed.TakeMail();
                mOpen.Tick();
                mClosed.Tick();
                break;
            case OUTCOME:
                mHub.AnswerWith(static_cast<Outcome>(bytes.size() % 6));
                bytes.size() % 2 == 0 ? mHub.HoldAnswers() : mHub.ReleaseAnswers();
                break;
            case CLOSE:
                mOpen.Close(static_cast<std::uint8_t>(bytes.size()));
                mClosed.Close(static_cast<std::uint8_t>(bytes.size()));
                break;
            default:
                mOpen.Read(bytes.size() % 256 + 1, mBlocks);
                mClosed.Read(bytes.size() % 256 + 1, mBlocks);
        }
    }

    void End() {
        mOpen.CheckMetrics();
        mHub.ReleaseAnswers();
    }

private:
    void Ask(const std::string& bytes) {
        RequireRoundTrips(bytes);
        std::string body;
        const Request request = RequestOf(bytes, body);
        mOpen.Take(request, body);
        mClosed.Take(request, body);
    }

    // The first byte says of which service.
    void SendBlock(const std::string& bytes) {
        if (bytes.empty() || mDevice.services.empty()) {
            return;
        }
        const std::size_t service = static_cast<unsigned char>(bytes[0]) % mDevice.services.size();
        mBlocks.insert(bytes.substr(1));
        mHub.Send(mDevice.id, mDevice.services[service].name, bytes.substr(1));
    }

    DeviceState mDevice;
    std::set<std::string> mBlocks;
    ScriptedHub mHub;
    FigureBoard mFigures;
    Served mOpen{mHub, mFigures, ""};
    Served mClosed{mHub, mFigures, TOKEN};
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    lumora_fuzz::PlayScript<World>(data, size);
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(data, size, most, seed, KINDS, lumora_fuzz::MutateBytes);
}
