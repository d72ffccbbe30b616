// The server's receive path: client frames in whatever pieces they come.
#include "tests/fuzz/mutation.h"
#include "tests/fuzz/read_replay.h"

using lumora_fuzz::FuzzedTransport;
using lumoraAiModule::LumoraTCPTransServer;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static lumora_test::RecordingObserver observer;
    static const auto transport = [] {
        auto made = std::make_shared<FuzzedTransport<LumoraTCPTransServer>>();
        lumora_fuzz::Require(made->AllocateReassembly(), "there is memory");
        made->SetObserver(lumora_test::RecordingObserver::Functions());
        return made;
    }();
    lumora_fuzz::ReplayReads<lumora_test::ServerStreamModel>(lumora_fuzz::ReadScript(data, size), *transport,
                                                             observer.mBlocks);
    return 0;
}

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t most,
                                    unsigned int seed) {
    return lumora_fuzz::MutateScriptInput(data, size, most, seed, lumora_fuzz::READ_KINDS,
                                          lumora_fuzz::MutateClientFrames);
}
