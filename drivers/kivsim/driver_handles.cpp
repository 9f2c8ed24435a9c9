#include "driver_handles.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "os/error.h"
#include "os/types.h"
#include "sim/errors.h"
#include "sim/handles.h"

namespace kivsim {
namespace {

std::filesystem::path canonicalOrSelf(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::path result = std::filesystem::weakly_canonical(path, ignored);
    return result.empty() ? path : result;
}

// "<number>" or "<number> (deleted)", the way the kernel names a removed folder.
bool parseEntry(const std::string& name, std::uint64_t* id, bool* removed) {
    std::string_view text(name);
    constexpr std::string_view kDeleted = " (deleted)";
    *removed = false;
    if (text.size() > kDeleted.size() && text.substr(text.size() - kDeleted.size()) == kDeleted) {
        text.remove_suffix(kDeleted.size());
        *removed = true;
    }
    if (text.empty()) {
        return false;
    }
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *id);
    return error == std::errc() && end == text.data() + text.size() && *id != 0;
}

}  // namespace

HandleTarget identifyHandle(const sim::Machine& machine, DriverHandle handle) {
    HandleTarget target;
    const int fd =
        sim::fdFromHandle(reinterpret_cast<os::HANDLE>(static_cast<std::uintptr_t>(handle)));
    if (fd < 0) {
        return target;
    }
    char link[PATH_MAX];
    const std::string procEntry = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t length = readlink(procEntry.c_str(), link, sizeof(link) - 1);
    if (length <= 0) {
        return target;
    }
    const std::filesystem::path path(std::string(link, static_cast<std::size_t>(length)));

    const std::filesystem::path driver = canonicalOrSelf(machine.stateDirectory() / "driver");
    const std::filesystem::path parent = path.parent_path();
    std::uint64_t id = 0;
    bool removed = false;
    if (parent == driver / "snapshots" && parseEntry(path.filename().string(), &id, &removed)) {
        target.kind = HandleTarget::Kind::Snapshot;
    } else if (parent == driver / "sets" && parseEntry(path.filename().string(), &id, &removed)) {
        target.kind = HandleTarget::Kind::Set;
    } else {
        for (const sim::Volume& volume : machine.volumes()) {
            if (canonicalOrSelf(volume.backingDirectory) == path) {
                target.kind = HandleTarget::Kind::Volume;
                target.volume = &volume;
                break;
            }
        }
    }
    if (target.kind != HandleTarget::Kind::None) {
        target.id = id;
        target.removed = removed;
        target.fd = fd;
    }
    return target;
}

std::uint32_t openDirectoryHandle(const std::filesystem::path& directory, DriverHandle* handle) {
    const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return sim::win32FromErrno(errno);
    }
    *handle = static_cast<DriverHandle>(reinterpret_cast<std::uintptr_t>(sim::handleFromFd(fd)));
    return os::ERROR_SUCCESS;
}

bool utf8ToUtf16(std::string_view text, std::u16string* out) {
    out->clear();
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::uint32_t code = 0;
        std::size_t extra = 0;
        if (lead < 0x80) {
            code = lead;
        } else if ((lead & 0xE0) == 0xC0) {
            code = lead & 0x1F;
            extra = 1;
        } else if ((lead & 0xF0) == 0xE0) {
            code = lead & 0x0F;
            extra = 2;
        } else if ((lead & 0xF8) == 0xF0) {
            code = lead & 0x07;
            extra = 3;
        } else {
            return false;
        }
        if (i + extra >= text.size() && extra > 0) {
            return false;  // a sequence cut off by the end of the text
        }
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            code = (code << 6) | (next & 0x3F);
        }
        constexpr std::uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
        if (code < kMinimum[extra] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        if (code >= 0x10000) {
            code -= 0x10000;
            out->push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            out->push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            out->push_back(static_cast<char16_t>(code));
        }
        i += extra + 1;
    }
    return true;
}

std::string utf16ToUtf8(std::u16string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t code = text[i];
        if (code >= 0xD800 && code <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            code = 0x10000 + ((code - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (code >= 0xD800 && code <= 0xDFFF) {
            code = 0xFFFD;  // a lone surrogate cannot be written as UTF-8
        }
        if (code < 0x80) {
            out.push_back(static_cast<char>(code));
        } else if (code < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (code >> 6)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else if (code < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (code >> 12)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (code >> 18)));
            out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
        }
    }
    return out;
}

std::string foldAscii(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return out;
}

}  // namespace kivsim
