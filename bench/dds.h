// What the programs over Cyclone DDS share: a topic of blocks, reliable, on the interface of the measurement.
#pragma once

#include <dds/dds.h>

#include <string>

#include "bench/signal.h"
#include "message.h"

namespace lumora_bench {

// Fails if the result is an error.
dds_entity_t Checked(dds_entity_t result, const char* what);
// Before the first participant: the interface, and multicast also on loopback.
void ChooseInterface();
dds_entity_t BlockTopic(dds_entity_t participant, const std::string& type);

// Every block is kept until it was received; with `latest`, a late reader gets the last one.
class DdsQos {
public:
    explicit DdsQos(bool latest);
    ~DdsQos() { dds_delete_qos(mQos); }
    DdsQos(const DdsQos&) = delete;
    DdsQos& operator=(const DdsQos&) = delete;
    const dds_qos_t* Get() const { return mQos; }

private:
    dds_qos_t* const mQos;
};

}  // namespace lumora_bench
