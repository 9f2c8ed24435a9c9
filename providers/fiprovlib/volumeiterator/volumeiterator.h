// Listing the machine's volumes and mount points, and converting between
// volume GUID names and the drive roots or mount points that reach them.
//
// The newer volume functions are bound at run time from "kernel32.dll"; on
// systems below major version 5 the iterators fall back to drive letters.
// Failures are thrown as the bare os::DWORD that GetLastError returned.
// Iterator copies share one position through a shared pointer, so copies may
// die on different threads, but one position must not be advanced from two
// threads at once.
#ifndef PROVIDERS_FIPROVLIB_VOLUMEITERATOR_VOLUMEITERATOR_H_
#define PROVIDERS_FIPROVLIB_VOLUMEITERATOR_VOLUMEITERATOR_H_

#include <memory>
#include <string>

struct VolumeIteratorState;
struct MountPointIteratorState;

class VolumeIterator {
  public:
    // The first volume. Throws os::DWORD.
    static VolumeIterator begin();
    static VolumeIterator end();

    std::u16string operator*() const;
    VolumeIterator& operator++();    // throws os::DWORD
    std::u16string operator++(int);  // the name before advancing; throws os::DWORD
    // Equal only when both are at their end.
    bool operator==(const VolumeIterator& other) const;
    bool operator!=(const VolumeIterator& other) const { return !(*this == other); }

  private:
    explicit VolumeIterator(std::shared_ptr<VolumeIteratorState> state);
    std::shared_ptr<VolumeIteratorState> state_;
};

class MountPointIterator {
  public:
    // The first mount point of `volumeName` (a GUID name), or the end when it
    // has none. Throws os::DWORD.
    static MountPointIterator begin(const std::u16string& volumeName);
    static MountPointIterator end();

    // The mount point relative to the volume root, ending in a backslash.
    std::u16string operator*() const;
    MountPointIterator& operator++();  // throws os::DWORD
    bool operator==(const MountPointIterator& other) const;
    bool operator!=(const MountPointIterator& other) const { return !(*this == other); }

  private:
    explicit MountPointIterator(std::shared_ptr<MountPointIteratorState> state);
    std::shared_ptr<MountPointIteratorState> state_;
};

// True when the operating system's major version is above 4.
bool isVolumeApiAvailable();
// The GUID name of the volume at `path` (a backslash is appended when
// missing) into `volumeName`; false leaves it alone. Throws os::DWORD when the
// function cannot be bound.
bool getVolumeNameForMountPoint(const std::u16string& path, std::u16string& volumeName);
// Replaces `path` by its volume's GUID name (or, before major version 5, by
// its drive root). Throws os::DWORD.
bool volumeNameOf(std::u16string& path);
// A drive root (fixed drives only) or mount point path through which the
// volume `volumeName` is reached, into `path`. Throws os::DWORD.
bool findVolumePath(const std::u16string& volumeName, std::u16string& path);
// Replaces a volume GUID name by its drive root or mount point path when one
// is found. Throws os::DWORD.
void replaceByVolumePath(std::u16string& volumeName);

#endif  // PROVIDERS_FIPROVLIB_VOLUMEITERATOR_VOLUMEITERATOR_H_
