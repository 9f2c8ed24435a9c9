#include "cachefile_test_support.h"

#include <fstream>
#include <stdexcept>

#include "fiprovlib/TraceMethod.h"
#include "kiv/cachefile/providermutex.h"
#include "kiv/kivficoordinator.h"
#include "os/codepage.h"
#include "os/handle.h"
#include "os/sync.h"
#include "sim/machine.h"
#include "string_helper.h"
#include "support/temp_machine.h"

namespace cachefiletest {
namespace {

std::vector<HostMessage>& hostMessages() {
    static std::vector<HostMessage> messages;
    return messages;
}

int recordHostMessage(tarn_context*, const char16_t* text, const char16_t*, std::uint32_t level) {
    hostMessages().push_back({text != nullptr ? text : u"", level});
    return 0;
}

}  // namespace

nlohmann::json machineWith(const std::vector<nlohmann::json>& volumes) {
    return {{"majorVersion", 10}, {"volumes", volumes}};
}

std::u16string guid(int number) {
    return testsupport::TempMachine::guidName(number);
}

std::u16string guidRoot(int number) {
    std::u16string name = guid(number);
    name.pop_back();
    return name;
}

std::string utf8(const std::u16string& text) {
    return toNarrow(text, os::CP_UTF8);
}

std::filesystem::path hostPathOf(const std::u16string& windowsPath) {
    auto resolved = sim::Machine::current().resolve(windowsPath);
    if (!resolved) {
        throw std::runtime_error("no volume holds " + utf8(windowsPath));
    }
    return resolved->hostPath;
}

void createFileAt(const std::u16string& windowsPath) {
    const std::filesystem::path file = hostPathOf(windowsPath);
    std::ofstream stream(file);
    if (!stream) {
        throw std::runtime_error("cannot create " + file.string());
    }
}

MessageCapture::MessageCapture() {
    hostMessages().clear();
    context_.msg_callback = &recordHostMessage;
    KivFiCoordinator& coordinator = KivFiCoordinator::instance();
    previous_ = coordinator.frameworkContext();
    coordinator.setFrameworkContext(&context_);
}

MessageCapture::~MessageCapture() {
    KivFiCoordinator::instance().setFrameworkContext(previous_);
    hostMessages().clear();
}

const std::vector<HostMessage>& MessageCapture::messages() const {
    return hostMessages();
}

TestMutex::TestMutex() {
    handle_ = os::CreateMutexW(nullptr, os::FALSE, providerMutexName(10));
    if (handle_ == nullptr) {
        throw std::runtime_error("CreateMutexW failed");
    }
}

TestMutex::~TestMutex() {
    os::CloseHandle(handle_);
}

}  // namespace cachefiletest
