// HandleOperations on the machine's processes: a registered handle is taken
// from the registering process with OpenProcess and DuplicateHandle, enabling
// the debug privilege once when the system refuses the open.
//
// Thread-safe.
#ifndef AGENT_SRC_SYSTEM_HANDLES_H_
#define AGENT_SRC_SYSTEM_HANDLES_H_

#include "handle_table.h"

namespace kivagent {

class SystemHandleOperations final : public HandleOperations {
  public:
    os::DWORD duplicateFrom(os::DWORD processId, std::uint64_t handle,
                            std::uint64_t* copy) override;
    os::DWORD close(std::uint64_t handle) override;
    // A descriptor handle whose file or directory has been deleted.
    bool isGone(std::uint64_t handle) override;
};

}  // namespace kivagent

#endif  // AGENT_SRC_SYSTEM_HANDLES_H_
