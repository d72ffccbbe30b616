#include <unistd.h>

#include <cstdio>
#include <set>
#include <vector>

#include "bench/dds.h"
#include "bench/journey.h"

namespace lumora_bench {

// Each device is a participant with a writer, whose last block a new reader gets.
void Offer(const std::string& type, unsigned int count) {
    ChooseInterface();
    const DdsQos qos(true);
    std::vector<unsigned char> bytes(1024);
    for (unsigned int device = 0; device < count; ++device) {
        const dds_entity_t participant = Checked(dds_create_participant(0, nullptr, nullptr), "participant");
        const dds_entity_t topic = BlockTopic(participant, type);
        const dds_entity_t writer =
            Checked(dds_create_writer(participant, topic, qos.Get(), nullptr), "writer");
        lumora_bench_Block block = {};
        block.sender = static_cast<std::uint32_t>(getpid()) * 1000 + device;
        block.bytes._buffer = bytes.data();
        block.bytes._length = block.bytes._maximum = static_cast<std::uint32_t>(bytes.size());
        Checked(dds_write(writer, &block), "write");
    }
    std::puts("ready");
    std::fflush(stdout);
    char ignored[64];
    while (read(STDIN_FILENO, ignored, sizeof(ignored)) > 0) {
    }
}

unsigned int Travel(const std::string& type, unsigned int count, Steps& steps) {
    ChooseInterface();
    const DdsQos qos(true);
    const dds_entity_t participant = Checked(dds_create_participant(0, nullptr, nullptr), "participant");
    const dds_entity_t reader =
        Checked(dds_create_reader(participant, BlockTopic(participant, type), qos.Get(), nullptr), "reader");
    const dds_entity_t waitset = Checked(dds_create_waitset(participant), "waitset");
    Checked(dds_set_status_mask(reader, DDS_DATA_AVAILABLE_STATUS), "mask");
    Checked(dds_waitset_attach(waitset, reader, 0), "attach");
    steps.Reach("started");
    std::set<std::uint32_t> senders;
    while (senders.size() < count) {
        Checked(dds_waitset_wait(waitset, nullptr, 0, DDS_SECS(10)), "wait");
        void* sample = nullptr;
        dds_sample_info_t info;
        for (;;) {
            const dds_return_t taken = Checked(dds_take(reader, &sample, &info, 1, 1), "take");
            if (taken == 0) {
                break;
            }
            if (info.valid_data && senders.insert(static_cast<lumora_bench_Block*>(sample)->sender).second &&
                senders.size() == 1) {
                steps.Reach("first_block");
            }
            dds_return_loan(reader, &sample, taken);
            sample = nullptr;
        }
    }
    steps.Reach("found");
    return static_cast<unsigned int>(senders.size());
}

}  // namespace lumora_bench
