// The framework utility library: buffers, object identities and list nodes.
//
// Every buffer handed out is remembered with its size, so a free with another
// size is caught and counted instead of corrupting the heap, and a list node
// can release the buffers it took over. Identities live in a registry, one
// per name, until the library is unloaded. All state sits behind one mutex.
#include "tarn/tarnutil.h"

#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

struct tarn_list_node {
    bool isFim = false;
    std::u16string name;
    std::uint32_t numberA = 0;
    std::uint32_t numberB = 0;
    tarn_version version{};
    std::uint32_t flags = 0;
    tarn_fim_info info{};
    std::u16string extra;
    std::u16string provider;
};

namespace {

// An identity together with the name storage it points at.
struct OwnedObjid {
    tarn_objid objid{};
    std::u16string name;
};

class UtilState final {
  public:
    static UtilState& get() {
        static UtilState state;
        return state;
    }

    void* alloc(std::uint64_t size) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (failCount_ > 0) {
            if (failSkip_ > 0) {
                --failSkip_;
            } else {
                --failCount_;
                return nullptr;
            }
        }
        // calloc(0) may answer null; a zero-byte request still gets a buffer.
        void* buffer = std::calloc(1, size == 0 ? 1 : size);
        if (buffer != nullptr) {
            buffers_[buffer] = size;
        }
        return buffer;
    }

    void free(void* buffer, std::uint64_t size, bool checkSize) {
        if (buffer == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = buffers_.find(buffer);
        if (it == buffers_.end()) {
            // Not ours, or freed twice: count it and leave the heap alone.
            ++sizeFaults_;
            return;
        }
        if (checkSize && it->second != size) {
            ++sizeFaults_;
        }
        buffers_.erase(it);
        std::free(buffer);
    }

    // One identity per name, length and kind: asking again for the same
    // object gives the same identity, so a long-running host does not
    // collect a copy per call.
    tarn_objid* makeObjid(const char16_t* name, std::int32_t length, std::uint32_t kind) {
        ObjidKey key{kind, length, std::u16string(name, static_cast<std::size_t>(length) / 2)};
        std::lock_guard<std::mutex> lock(mutex_);
        std::unique_ptr<OwnedObjid>& owned = objids_[key];
        if (owned == nullptr) {
            owned = std::make_unique<OwnedObjid>();
            owned->name = std::get<2>(key);
            owned->objid.name = owned->name.data();
            owned->objid.length = length;
            owned->objid.kind = kind;
        }
        return &owned->objid;
    }

    std::uint64_t sizeOf(const void* buffer) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = buffers_.find(const_cast<void*>(buffer));
        return it == buffers_.end() ? 0 : it->second;
    }

    void failAlloc(std::uint32_t skip, std::uint32_t count) {
        std::lock_guard<std::mutex> lock(mutex_);
        failSkip_ = count == 0 ? 0 : skip;
        failCount_ = count;
    }

    void stats(std::uint64_t* outstanding, std::uint64_t* sizeFaults) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (outstanding != nullptr) {
            *outstanding = buffers_.size();
        }
        if (sizeFaults != nullptr) {
            *sizeFaults = sizeFaults_;
        }
    }

  private:
    UtilState() = default;
    ~UtilState() {
        for (auto& [buffer, size] : buffers_) {
            std::free(buffer);
        }
    }

    std::mutex mutex_;
    std::unordered_map<void*, std::uint64_t> buffers_;
    using ObjidKey = std::tuple<std::uint32_t, std::int32_t, std::u16string>;
    std::map<ObjidKey, std::unique_ptr<OwnedObjid>> objids_;
    std::uint64_t sizeFaults_ = 0;
    std::uint32_t failSkip_ = 0;
    std::uint32_t failCount_ = 0;
};

// The name's UTF-16 units without the trailing NULs.
std::u16string_view trimmedName(const tarn_objid* objid) {
    if (objid->name == nullptr || objid->length <= 0) {
        return {};
    }
    std::u16string_view name(objid->name, static_cast<std::size_t>(objid->length) / 2);
    while (!name.empty() && name.back() == u'\0') {
        name.remove_suffix(1);
    }
    return name;
}

std::u16string copyText(const char16_t* text) {
    return text == nullptr ? u"" : text;
}

}  // namespace

extern "C" {

void* tarn_alloc_buf(std::uint64_t size) {
    return UtilState::get().alloc(size);
}

void tarn_free_buf(void* buffer, std::uint64_t size) {
    UtilState::get().free(buffer, size, /*checkSize=*/true);
}

int tarn_objidcmp(const tarn_objid* a, const tarn_objid* b) {
    if (a == nullptr || b == nullptr) {
        return a == b ? 1 : (a == nullptr ? -1 : 1);
    }
    if (a->kind != b->kind) {
        return a->kind < b->kind ? -1 : 1;
    }
    int order = trimmedName(a).compare(trimmedName(b));
    return order < 0 ? -1 : (order > 0 ? 1 : 0);
}

tarn_objid* tarn_get_objid(const char16_t* name, std::int32_t length, std::uint32_t kind) {
    if (name == nullptr || length < 0) {
        return nullptr;
    }
    return UtilState::get().makeObjid(name, length, kind);
}

tarn_list_node* tarn_build_providerlist_node(const char16_t* name, std::uint32_t a, std::uint32_t b,
                                             const tarn_version* version, std::uint32_t flags) {
    if (name == nullptr) {
        return nullptr;
    }
    auto* node = new (std::nothrow) tarn_list_node;
    if (node == nullptr) {
        return nullptr;
    }
    node->name = name;
    node->numberA = a;
    node->numberB = b;
    if (version != nullptr) {
        node->version = *version;
    }
    node->flags = flags;
    return node;
}

tarn_list_node* tarn_build_fim_list_node(const char16_t* method, const tarn_fim_info* info,
                                         const char16_t* extra, const char16_t* provider) {
    if (method == nullptr || info == nullptr) {
        return nullptr;
    }
    auto* node = new (std::nothrow) tarn_list_node;
    if (node == nullptr) {
        return nullptr;
    }
    node->isFim = true;
    node->name = method;
    node->info = *info;
    node->extra = copyText(extra);
    node->provider = copyText(provider);
    return node;
}

int tarn_list_node_view(const tarn_list_node* node, tarn_list_view* view) {
    if (node == nullptr || view == nullptr) {
        return kTarnInvalidRequest;
    }
    *view = tarn_list_view{};
    view->is_fim = node->isFim ? 1 : 0;
    view->name = node->name.c_str();
    view->number_a = node->numberA;
    view->number_b = node->numberB;
    view->version = node->version;
    view->flags = node->flags;
    view->info = node->info;
    view->extra = node->isFim ? node->extra.c_str() : nullptr;
    view->provider = node->isFim ? node->provider.c_str() : nullptr;
    return kTarnSuccess;
}

void tarn_free_list_node(tarn_list_node* node) {
    if (node == nullptr) {
        return;
    }
    if (node->isFim) {
        // The node owns the two buffers it took over; their sizes are the
        // ones recorded at allocation.
        UtilState::get().free(node->info.description, 0, /*checkSize=*/false);
        UtilState::get().free(node->info.version_text, 0, /*checkSize=*/false);
    }
    delete node;
}

void tarn_test_fail_alloc(std::uint32_t skip, std::uint32_t count) {
    UtilState::get().failAlloc(skip, count);
}

void tarn_test_buffer_stats(std::uint64_t* outstanding, std::uint64_t* size_faults) {
    UtilState::get().stats(outstanding, size_faults);
}

std::uint64_t tarn_test_buffer_size(const void* buffer) {
    return UtilState::get().sizeOf(buffer);
}

}  // extern "C"
