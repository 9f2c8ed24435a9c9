// Records, requests and settings documents shared by the configuration tests.
#ifndef TESTS_PROVIDERS_KIV_KIVCONFIG_KIVCONFIG_TEST_UTIL_H_
#define TESTS_PROVIDERS_KIV_KIVCONFIG_KIVCONFIG_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "kiv/kivconfig/kivconfig.h"
#include "kiv/kivficoordinator.h"
#include "tarn/records.h"
#include "tarn/tarnutil.h"

namespace kivconfigtest {

enum class Target { kGroup, kVolume };
enum class Select { kSplit, kQuiesce, kNone, kBoth };

inline tarn_config_request request(Select select, const char16_t* text) {
    tarn_config_request request{};
    request.split_selector = (select == Select::kSplit || select == Select::kBoth) ? 0x10 : 0;
    request.quiesce_selector = (select == Select::kQuiesce || select == Select::kBoth) ? 0x20 : 0;
    request.text = const_cast<char16_t*>(text);
    return request;
}

// Names each instance of a table-driven suite after its row.
inline constexpr auto kRowName = [](const auto& info) { return std::string(info.param.name); };

using Elements = std::vector<std::pair<std::u16string, std::u16string>>;

// A settings document of (key, value) elements, after a mode element if given.
inline std::u16string document(const Elements& elements, const std::u16string& mode = u"") {
    std::u16string text = u"<SET_CONFIG_INFO_LIST> ";
    if (!mode.empty()) {
        text += u"<SET_CONFIG_INFO key=cs_flags value=" + mode + u" /> ";
    }
    for (const auto& [key, value] : elements) {
        text += u"<SET_CONFIG_INFO key=" + key + u" value=" + value + u" /> ";
    }
    return text + u"</SET_CONFIG_INFO_LIST>";
}

inline std::u16string selectDocument(const Elements& elements) {
    return document(elements, u"TARN_CFS_SELECT_PREP");
}

// A request made with kUntouched: "<untouched>" if left, "<null>" if cleared,
// else the handed-over text, freed with the size the host assumes.
inline constexpr char16_t kUntouched[] = u"<untouched>";

inline std::u16string handedBack(tarn_config_request& request) {
    if (request.text == nullptr) {
        return u"<null>";
    }
    if (request.text == kUntouched) {
        return kUntouched;
    }
    std::u16string text(request.text);
    tarn_free_buf(request.text, 2 * (text.size() + 1));
    request.text = nullptr;
    return text;
}

}  // namespace kivconfigtest

// Stores entries no settings document can carry (values with blanks, a
// prefix alone).
class KivConfigTestPeer {
  public:
    static void storeQuiesceEntries(KivConfig& config, std::vector<std::u16string> entries) {
        config.quiesceEntries_ = std::move(entries);
        config.quiesceConfigured_ = true;
    }
    static void storeCacheEntries(KivConfig& config, std::vector<std::u16string> entries) {
        config.cacheEntries_ = std::move(entries);
        config.cacheConfigured_ = true;
    }
};

namespace kivconfigtest {

// One configuration, a group and a volume record (the coordinator knows the
// group object); every buffer handed to the host must be taken, sized right.
class ConfigFixture : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { KivFiCoordinator::instance(); }

    void SetUp() override {
        groupRecord_.objid = makeObjid(u"kiv-cow-snapshot-group");
        volumeRecord_.objid =
            makeObjid(u"<kiv>\\\\?\\Volume{00000000-0000-0000-0000-000000000005}\\");
        tarn_test_buffer_stats(&outstandingBefore_, &sizeFaultsBefore_);
    }

    void TearDown() override {
        std::uint64_t outstanding = 0;
        std::uint64_t sizeFaults = 0;
        tarn_test_buffer_stats(&outstanding, &sizeFaults);
        EXPECT_EQ(outstanding, outstandingBefore_) << "a handed-over buffer was not taken";
        EXPECT_EQ(sizeFaults, sizeFaultsBefore_) << "a buffer was not 2 x (length + 1) bytes";
    }

    tarn_node* record(Target target) {
        return target == Target::kGroup ? &groupRecord_ : &volumeRecord_;
    }

    std::int32_t set(Target target, Select select, const std::u16string& text) {
        tarn_config_request r = request(select, text.c_str());
        return config_.set(record(target), nullptr, &r);
    }
    std::int32_t update(Target target, Select select, const std::u16string& text) {
        tarn_config_request r = request(select, text.c_str());
        return config_.update(record(target), &r);
    }
    // What get hands back (see handedBack); get always answers 0.
    std::u16string get(Target target, Select select) {
        tarn_config_request r = request(select, kUntouched);
        EXPECT_EQ(config_.get(record(target), nullptr, &r), 0);
        return handedBack(r);
    }

    tarn_node groupRecord_{};
    tarn_node volumeRecord_{};
    KivConfig config_;
    std::uint64_t outstandingBefore_ = 0;
    std::uint64_t sizeFaultsBefore_ = 0;
};

}  // namespace kivconfigtest

#endif  // TESTS_PROVIDERS_KIV_KIVCONFIG_KIVCONFIG_TEST_UTIL_H_
