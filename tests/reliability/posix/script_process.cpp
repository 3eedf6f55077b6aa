// Environment, shared memory and files of the process; see the header.
#include "reliability/posix/script_process.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <system_error>
#include <thread>

#include "reliability/memory_disk.h"
#include "reliability/preload/fault_environment.h"
#include "support/child_process.h"
#include "support/file_bytes.h"

namespace k9erepl::reliability {

namespace {

class SharedMemory {
  public:
    explicit SharedMemory(const std::string& path) {
        const int file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0 || ftruncate(file, sizeof(FaultShared)) != 0) {
            throw std::system_error(errno, std::generic_category(), path);
        }
        m_memory = mmap(nullptr, sizeof(FaultShared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        if (m_memory == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }
    ~SharedMemory() { munmap(m_memory, sizeof(FaultShared)); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    const FaultShared& Get() const { return *static_cast<const FaultShared*>(m_memory); }

  private:
    void* m_memory = nullptr;
};

std::vector<std::string> EnvironmentOf(const ProcessFault& fault, const std::string& folder,
                                       const std::string& shared) {
    std::vector<std::string> environment{
        std::string("LD_PRELOAD=") + FAULT_LIBRARY, "K9EREPL_FAULT_FOLDER=" + folder,
        "K9EREPL_FAULT_SHARED=" + shared, "K9EREPL_FAULT_AT=" + std::to_string(fault.at),
        "K9EREPL_FAULT_ACTION=" + fault.action};
    if (!fault.call.empty()) {
        environment.push_back("K9EREPL_FAULT_CALL=" + fault.call);
    }
    if (!fault.skip.empty()) {
        environment.push_back("K9EREPL_FAULT_SKIP=" + fault.skip);
    }
    return environment;
}

DiskImage Read(const std::string& folder) {
    DiskImage image;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const auto bytes = test::ReadBytes(entry.path().string());
        FileBytes file;
        file.Write(0, bytes.data(), static_cast<u32>(bytes.size()));
        image.Put(kFolder + entry.path().filename().string(), std::move(file));
    }
    return image;
}

// Busy: any waiting would choose the moments.
void KillAfter(test::ChildProcess& child, const FaultShared& shared, u64 calls) {
    while (shared.calls < calls && shared.ended == 0) {
        std::this_thread::yield();
    }
    child.Kill();
}

}  // namespace

ProcessEnd RunProcess(const ScriptPlan& plan, u64 seed, const ProcessFault& fault) {
    const test::TempFolder folder;
    const std::string files = folder.File("files");
    std::filesystem::create_directory(files);
    const SharedMemory shared(folder.File("shared"));
    test::ChildProcess child(
        {.arguments = {SCRIPT_CLIENT, files + "/storage.edb", std::to_string(seed),
                       std::to_string(plan.operations), plan.async ? "1" : "0",
                       plan.forceFlush ? "1" : "0", plan.startsOver ? "1" : "0"},
         .environment = EnvironmentOf(fault, files, folder.File("shared"))});
    if (fault.killAfter > 0) {
        KillAfter(child, shared.Get(), fault.killAfter);
    }
    const test::ChildEnd end = child.Wait();
    const FaultShared& told = shared.Get();
    return {.killed = end.signal == test::kKillSignal,
            .exitStatus = end.signal == test::kKillSignal ? 0 : end.exitStatus + end.signal,
            .calls = told.calls,
            .struck = told.struck,
            .begun = told.begun,
            .acknowledged = told.acknowledged,
            .failed = static_cast<u32>(told.failed),
            .code = static_cast<u32>(told.code),
            .left = Read(files)};
}

}  // namespace k9erepl::reliability
