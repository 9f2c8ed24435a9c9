// The GET_CONFIG_INFO information documents, which tell the host which keys a
// group takes. Each is built once per configuration from the key lists and
// kept for later requests.
#include "kiv/kivconfig/kivconfig.h"

#include <string>
#include <vector>

namespace {

constexpr char16_t kListStart[] = u"<GET_CONFIG_INFO_LIST> ";
constexpr char16_t kElementStart[] = u"<GET_CONFIG_INFO ";
constexpr char16_t kElementEnd[] = u" /> ";
constexpr char16_t kListEnd[] = u"</GET_CONFIG_INFO_LIST> ";
// The preparation mode element that leads the split group's document.
constexpr char16_t kModeElement[] =
    u"key=cs_flags type=SELECT value_type=selection_list "
    u"value_selection_list=TARN_CFS_SELECT_PREP,TARN_CFS_AUTO_PREP";

void appendElement(std::u16string& document, const char16_t* body) {
    document.append(kElementStart).append(body).append(kElementEnd);
}

std::u16string buildDocument(const std::vector<ConfigKeyDescriptor>& keys, bool withMode) {
    std::u16string document(kListStart);
    if (withMode) {
        appendElement(document, kModeElement);
    }
    for (const ConfigKeyDescriptor& key : keys) {
        appendElement(document, key.info);
    }
    document.append(kListEnd);
    return document;
}

}  // namespace

std::int32_t KivConfig::getConfigInfo(tarn_node* record, void* /*argument*/,
                                      tarn_config_request* request) {
    if (request == nullptr) {
        return kTarnInvalidRequest;
    }
    bool split = request->split_selector != 0 && request->quiesce_selector == 0;
    bool quiesce = request->split_selector == 0 && request->quiesce_selector != 0;
    if (!split && !quiesce) {
        return kTarnInvalidRequest;
    }
    if (!isGroupRequest(record)) {
        if (quiesce) {
            request->text = nullptr;  // volume nodes have no quiesce keys
            return kTarnSuccess;
        }
        // A node's requests always carry the same identity, so a volume node
        // only ever keeps the split document in infoDocument_.
        if (infoDocument_.empty()) {
            infoDocument_ = buildDocument(splitKeys_, /*withMode=*/true);
        }
        return handOver(infoDocument_, request);
    }
    if (quiesce) {
        if (quiesceInfo_.empty()) {
            quiesceInfo_ = buildDocument(quiesceKeys_, /*withMode=*/false);
        }
        return handOver(quiesceInfo_, request);
    }
    if (infoDocument_.empty()) {
        infoDocument_ = buildDocument(cacheKeys_, /*withMode=*/false);
    }
    return handOver(infoDocument_, request);
}
