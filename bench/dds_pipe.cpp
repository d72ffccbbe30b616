#include <atomic>
#include <thread>

#include "bench/dds.h"
#include "bench/pipe.h"

namespace lumora_bench {

namespace {

// A topic for each direction. Reliable, and nothing is dropped: a full writer waits.
class DdsPipe : public Pipe {
public:
    void Open(Role role, Flow flow, Handler handler) override {
        const bool device = role == Role::DEVICE;
        const bool sends = flow == Flow::BOTH || (flow == Flow::DOWN) == device;
        const bool receives = flow == Flow::BOTH || !sends;
        ChooseInterface();
        mHandler = std::move(handler);
        mParticipant = Checked(dds_create_participant(0, nullptr, nullptr), "participant");
        const DdsQos qos(false);
        if (receives) {
            const dds_entity_t topic = BlockTopic(mParticipant, device ? "up" : "down");
            mReader = Checked(dds_create_reader(mParticipant, topic, qos.Get(), nullptr), "reader");
            mWaitset = Checked(dds_create_waitset(mParticipant), "waitset");
            Checked(dds_set_status_mask(mReader, DDS_DATA_AVAILABLE_STATUS), "mask");
            Checked(dds_waitset_attach(mWaitset, mReader, 0), "attach");
            if (mHandler) {
                mThread = std::thread([this] { ReceiveAll(); });
            }
        }
        if (sends) {
            const dds_entity_t topic = BlockTopic(mParticipant, device ? "down" : "up");
            mWriter = Checked(dds_create_writer(mParticipant, topic, qos.Get(), nullptr), "writer");
            WaitForReader();
        }
    }

    void Send(const char* data, std::size_t length) override {
        lumora_bench_Block block = {};
        // The interface takes what it only reads as writable.
        block.bytes._buffer = reinterpret_cast<std::uint8_t*>(const_cast<char*>(data));
        block.bytes._length = block.bytes._maximum = static_cast<std::uint32_t>(length);
        Checked(dds_write(mWriter, &block), "write");
    }

    void Exchange(const char* data, std::size_t length) override {
        Send(data, length);
        while (!TakeAll()) {
            Checked(dds_waitset_wait(mWaitset, nullptr, 0, DDS_SECS(2)), "wait");
        }
    }

    void Close() override {
        mClosing = true;
        if (mThread.joinable()) {
            mThread.join();
        }
        dds_delete(mParticipant);
    }

private:
    void WaitForReader() const {
        dds_publication_matched_status_t status = {};
        while (status.current_count == 0) {
            dds_sleepfor(DDS_MSECS(1));
            Checked(dds_get_publication_matched_status(mWriter, &status), "matched");
        }
    }

    bool TakeAll() {
        constexpr std::uint32_t MOST = 64;
        void* samples[MOST] = {};
        dds_sample_info_t infos[MOST];
        const dds_return_t taken = Checked(dds_take(mReader, samples, infos, MOST, MOST), "take");
        for (dds_return_t at = 0; at < taken; ++at) {
            const auto& bytes = static_cast<lumora_bench_Block*>(samples[at])->bytes;
            if (infos[at].valid_data && mHandler) {
                mHandler(reinterpret_cast<const char*>(bytes._buffer), bytes._length);
            }
        }
        dds_return_loan(mReader, samples, taken);
        return taken > 0;
    }

    void ReceiveAll() {
        while (!mClosing) {
            Checked(dds_waitset_wait(mWaitset, nullptr, 0, DDS_MSECS(100)), "wait");
            while (TakeAll()) {
            }
        }
    }

    Handler mHandler;
    dds_entity_t mParticipant = 0;
    dds_entity_t mReader = 0;
    dds_entity_t mWriter = 0;
    dds_entity_t mWaitset = 0;
    std::thread mThread;
    std::atomic<bool> mClosing{false};
};

}  // namespace

std::unique_ptr<Pipe> MakeDdsPipe() { return std::make_unique<DdsPipe>(); }

}  // namespace lumora_bench
