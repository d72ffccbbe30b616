#include "bench/dds.h"

#include <algorithm>
#include <cstdlib>

namespace lumora_bench {

dds_entity_t Checked(dds_entity_t result, const char* what) {
    if (result < 0) {
        Fail(std::string("dds: ") + what + ": " + dds_strretcode(result));
    }
    return result;
}

void ChooseInterface() {
    const char* name = std::getenv("LUMORA_LINK_INTERFACE");
    const std::string interface = "<CycloneDDS><Domain><General><Interfaces><NetworkInterface name=\"" +
                                  std::string(name != nullptr ? name : "lo") +
                                  "\" "
                                  "multicast=\"true\"/></Interfaces><AllowMulticast>true</AllowMulticast></"
                                  "General></Domain></CycloneDDS>";
    setenv("CYCLONEDDS_URI", interface.c_str(), 0);
}

dds_entity_t BlockTopic(dds_entity_t participant, const std::string& type) {
    std::string name = type;
    std::replace(name.begin(), name.end(), '-', '_');  // a topic's name has none
    return Checked(dds_create_topic(participant, &lumora_bench_Block_desc, name.c_str(), nullptr, nullptr),
                   "topic");
}

DdsQos::DdsQos(bool latest) : mQos(dds_create_qos()) {
    dds_qset_reliability(mQos, DDS_RELIABILITY_RELIABLE, DDS_SECS(10));
    if (latest) {
        dds_qset_durability(mQos, DDS_DURABILITY_TRANSIENT_LOCAL);
    } else {
        dds_qset_history(mQos, DDS_HISTORY_KEEP_ALL, 0);
    }
}

}  // namespace lumora_bench
