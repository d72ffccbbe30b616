#include "hub/web/metrics.h"

#include <cstdio>
#include <set>
#include <utility>
#include <vector>

#include "hub/core/text.h"

namespace lumora_hub::web {
namespace {

std::string Number(double value) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.9g", value);
    return text.data();
}

// The lines of one metric. Lines without labels have empty ones.
class Metric {
public:
    Metric(std::string& out, std::string name, const char* type, const char* help)
        : mOut(out), mName(std::move(name)) {
        mOut += "# HELP " + mName + " " + help + "\n# TYPE " + mName + " " + type + "\n";
    }

    // A series that is there twice would cost the whole reading, and devices choose names: two of them may be
    // the same once they are text.
    void Add(const std::string& labels, std::uint64_t value) {
        if (!mSeen.insert(labels).second) {
            return;
        }
        mOut += mName + (labels.empty() ? "" : "{" + labels + "}") + " " + std::to_string(value) + "\n";
    }

private:
    std::string& mOut;
    const std::string mName;
    std::set<std::string> mSeen;
};

std::string Label(const char* name, const std::string& value) {
    return std::string(name) + "=\"" + LabelText(value) + "\"";
}

std::string ServiceLabels(const std::string& device, const std::string& service) {
    return Label("device", device) + "," + Label("service", service);
}

void AddDevices(const std::vector<DeviceState>& devices, std::string& out) {
    std::array<std::uint64_t, 4> channels{};
    std::uint64_t present = 0;
    for (const DeviceState& device : devices) {
        present += device.isPresent ? 1 : 0;
        ++channels.at(static_cast<std::size_t>(device.channel));
    }
    Metric known(out, "lumora_hub_devices", "gauge",
                 "Devices that the hub knows, by whether they are there.");
    known.Add(Label("state", "present"), present);
    known.Add(Label("state", "absent"), devices.size() - present);
    Metric states(out, "lumora_hub_channels", "gauge",
                  "Devices by the state of the hub's data channel to them.");
    for (std::size_t at = 0; at < channels.size(); ++at) {
        states.Add(Label("state", NameOf(static_cast<ChannelState>(at))), channels[at]);
    }
    Metric reconnects(out, "lumora_hub_reconnects_total", "counter", "Data channels that were opened again.");
    for (const DeviceState& device : devices) {
        reconnects.Add(Label("device", device.id), device.reconnects);
    }
}

void AddServices(const std::vector<DeviceState>& devices, std::string& out) {
    using Field = std::uint64_t ServiceState::*;
    const auto add = [&](const char* name, const char* help, const Field& field) {
        Metric metric(out, name, "counter", help);
        for (const DeviceState& device : devices) {
            for (const ServiceState& service : device.services) {
                metric.Add(ServiceLabels(device.id, service.name), service.*field);
            }
        }
    };
    add("lumora_hub_blocks_total", "Blocks that a service sent to the hub.", &ServiceState::blocks);
    add("lumora_hub_bytes_total", "Bytes of these blocks.", &ServiceState::bytes);
}

struct Queues {
    std::uint64_t consumers = 0;
    std::uint64_t blocks = 0;
    std::uint64_t bytes = 0;
    std::uint64_t lost = 0;
};

// A line for each consumer would be a new series for each opened tab.
void AddConsumers(const std::vector<ConsumerState>& consumers, std::string& out) {
    std::map<std::string, Queues> services;
    for (const ConsumerState& consumer : consumers) {
        Queues& queues = services[ServiceLabels(consumer.device, consumer.service)];
        ++queues.consumers;
        queues.blocks += consumer.counts.waiting;
        queues.bytes += consumer.counts.waitingBytes;
        queues.lost += consumer.counts.lost;
    }
    const auto add = [&](const char* name, const char* help, std::uint64_t Queues::*field) {
        Metric metric(out, name, "gauge", help);
        for (const auto& [labels, queues] : services) {
            metric.Add(labels, queues.*field);
        }
    };
    add("lumora_hub_consumers", "Consumers of a service.", &Queues::consumers);
    add("lumora_hub_queue_blocks", "Blocks that wait for the consumers of a service.", &Queues::blocks);
    add("lumora_hub_queue_bytes", "Bytes of these blocks.", &Queues::bytes);
    add("lumora_hub_queue_lost_blocks", "Blocks that the present consumers of a service lost.",
        &Queues::lost);
}

void AddRefusals(const RefusalCounts& counts, std::string& out) {
    Metric metric(out, "lumora_hub_address_refused_total", "counter",
                  "Refusals because an address has what one address may have.");
    metric.Add(Label("what", "node"), counts.nodes);
    metric.Add(Label("what", "device"), counts.devices);
    metric.Add(Label("what", "channel"), counts.channels);
}

void AddWeb(const WebCounts& counts, std::uint64_t lostOfStreams, std::string& out) {
    Metric replies(out, "lumora_hub_http_replies_total", "counter", "Replies by their status.");
    for (const auto& [status, number] : counts.replies) {
        replies.Add(Label("status", std::to_string(status)), number);
    }
    const auto add = [&](const char* name, const char* type, const char* help, std::uint64_t value) {
        Metric(out, name, type, help).Add("", value);
    };
    add("lumora_hub_http_connections", "gauge", "Open connections.", counts.connections);
    add("lumora_hub_http_accepted_total", "counter", "Accepted connections.", counts.accepted);
    add("lumora_hub_http_refused_total", "counter", "Connections refused because of a limit.",
        counts.refused);
    add("lumora_hub_http_expired_total", "counter", "Connections closed for slowness.", counts.expired);
    add("lumora_hub_http_rejected_total", "counter", "Requests without the token, or of a foreign page.",
        counts.rejected);
    add("lumora_hub_web_streams", "gauge", "Open streams of blocks.", counts.streams);
    add("lumora_hub_web_blocks_total", "counter", "Blocks sent to streams.", counts.blocks);
    add("lumora_hub_web_bytes_total", "counter", "Bytes of these blocks.", counts.blockBytes);
    add("lumora_hub_web_lost_blocks_total", "counter", "Blocks that slow streams lost.",
        counts.lostOfEnded + lostOfStreams);
    counts.latency.Print("lumora_hub_web_latency_seconds",
                         "Time of a block in the hub, from its arrival to the socket of a stream.", out);
}

}  // namespace

void Histogram::Add(std::chrono::steady_clock::duration time) {
    const double seconds = std::chrono::duration<double>(time).count();
    std::size_t at = 0;
    while (at < BOUNDS.size() && seconds > BOUNDS[at]) {
        ++at;
    }
    ++mCounts[at];
    mSum += seconds;
}

void Histogram::Print(const std::string& name, const std::string& help, std::string& out) const {
    out += "# HELP " + name + " " + help + "\n# TYPE " + name + " histogram\n";
    std::uint64_t sum = 0;
    for (std::size_t at = 0; at < mCounts.size(); ++at) {
        sum += mCounts[at];
        const std::string bound = at < BOUNDS.size() ? Number(BOUNDS[at]) : "+Inf";
        out.append(name).append("_bucket{le=\"").append(bound).append("\"} ");
        out.append(std::to_string(sum)).append("\n");
    }
    out += name + "_sum " + Number(mSum) + "\n" + name + "_count " + std::to_string(sum) + "\n";
}

// Devices and clients choose names. Their control characters must not steer a terminal that shows the
// metrics.
std::string LabelText(const std::string& text) {
    std::string label;
    for (const char character : Utf8(text)) {
        const auto code = static_cast<unsigned char>(character);
        if (character == '\n') {
            label += "\\n";
        } else if (code < 0x20 || code == 0x7F) {
            label += "\xEF\xBF\xBD";
        } else {
            label += character == '\\' || character == '"' ? "\\" : "";
            label += character;
        }
    }
    return label;
}

std::string MetricsText(const DeviceHub& hub, const WebCounts& counts, std::uint64_t lostOfStreams,
                        const std::vector<Figure>& others) {
    std::string out;
    const std::vector<DeviceState> devices = hub.Devices();
    AddDevices(devices, out);
    AddServices(devices, out);
    AddConsumers(hub.Consumers(), out);
    AddRefusals(hub.Refusals(), out);
    AddWeb(counts, lostOfStreams, out);
    for (const Figure& figure : others) {
        const bool isCounter = figure.kind == Figure::Kind::COUNTER;
        Metric(out, figure.name, isCounter ? "counter" : "gauge", figure.help.c_str()).Add("", figure.value);
    }
    return out;
}

}  // namespace lumora_hub::web
