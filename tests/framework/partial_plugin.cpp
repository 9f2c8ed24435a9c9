// A plug-in exporting only a few entry points, for the host's tests; it
// reports what it sees through the host's message callback.
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tarn/records.h"

#define PARTIAL_ENTRY extern "C" __attribute__((visibility("default")))

namespace {

tarn_context* savedContext = nullptr;

void send(const char16_t* text, const char16_t* secondText, std::uint32_t level) {
    if (savedContext != nullptr && savedContext->msg_callback != nullptr) {
        savedContext->msg_callback(savedContext, text, secondText, level);
    }
}

tarn_fi_entry entries[2];
tarn_fi_link entryLink;

}  // namespace

// Keeps the context, sends the locale it finds and a few texts that the host
// must copy faithfully, and writes a version.
PARTIAL_ENTRY std::int32_t fikiv_fi_pgn_init(tarn_context* context, tarn_version* version) {
    if (version == nullptr) {
        return 7;
    }
    savedContext = context;
    if (context != nullptr && context->locale_ref != nullptr &&
        context->locale_ref->name != nullptr) {
        const std::string name = context->locale_ref->name;
        send(u"locale", std::u16string(name.begin(), name.end()).c_str(), 1);
    } else {
        send(u"no locale", nullptr, 1);
    }
    send(u"Größe \U0001F600", nullptr, 2);
    send(nullptr, u"second only", 3);
    *version = tarn_version{{1, 2, 3, 4}};
    return 0;
}

PARTIAL_ENTRY void fikiv_fi_pgn_fini() {
    send(u"fini", nullptr, 4);
}

// Sends 4 x 250 messages from four threads at once.
PARTIAL_ENTRY std::int32_t fikiv_fi_pgn_pre_prepare(void*) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 250; ++i) {
                send(u"threaded", nullptr, 4);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return 0;
}

// Answers through fi_support, lists two fi entries in one link, and returns
// the identity's length in bytes.
PARTIAL_ENTRY std::int32_t fikiv_fi_pgn_init_node(tarn_node* record, void*, std::uint32_t, void*) {
    if (record == nullptr || record->objid == nullptr || record->fi_support == nullptr) {
        return 3;
    }
    *record->fi_support = 0x5;
    entries[0] = tarn_fi_entry{"kiv-cow-snapshot", record, nullptr};
    entries[1] = entries[0];
    entryLink = tarn_fi_link{nullptr, &entries[0], &entries[1]};
    record->fi_list = &entryLink;
    return record->objid->length;
}
