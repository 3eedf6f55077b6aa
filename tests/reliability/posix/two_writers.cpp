// The family of two writers: threads and processes that want to write one storage at the same time,
// some of them killed, deletions and replacements beside a living writer, squeezes under the lock,
// and file systems without locks. There is one writer at any time, whoever is refused changes
// nothing, and what was acknowledged is there.
#include <fcntl.h>
#include <k9erepl/storage.h>
#include <sched.h>

#include <array>
#include <thread>

#include "reliability/gated_files.h"
#include "reliability/posix/writing_session.h"

namespace k9erepl::reliability {

namespace {

Problem Threads(Scene& scene) {
    std::vector<std::thread> threads;
    for (u32 writer = 1; writer <= 3; ++writer) {
        threads.emplace_back([&scene, writer, seed = scene.random.Next()] {
            model::Random random(seed);
            for (u32 turn = 0; turn < 3; ++turn) {
                scene.board->Tell(scene.Write(writer, 1 + random.Below(4), random));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const Problem problem = scene.OnlyRefusals();
    return problem.empty() ? scene.End() : problem;
}

pid_t StartWriter(Scene& scene, u32 writer, u32 turns) {
    return scene.Start([&scene, writer, turns, seed = scene.random.Next()] {
        model::Random random(seed);
        Problem problem;
        for (u32 turn = 0; turn < turns && problem.empty(); ++turn) {
            problem = scene.Write(writer, 1 + random.Below(4), random);
        }
        const Problem logged = scene.OnlyRefusals();
        return problem.empty() ? logged : problem;
    });
}

Problem Processes(Scene& scene) {
    std::array<pid_t, 3> writers{};
    for (u32 i = 0; i < writers.size(); ++i) {
        writers.at(i) = StartWriter(scene, i + 1, 3);
    }
    for (const pid_t writer : writers) {
        scene.board->Tell(test::AnswerOf(writer) == 0 ? "" : "a writing process died");
    }
    return scene.End();
}

// Each is killed at some moment of its writing, or of its waiting for another one.
Problem KilledProcesses(Scene& scene) {
    constexpr u32 kEndless = 1'000'000;
    u32 writer = 0;
    pid_t living = StartWriter(scene, ++writer, kEndless);
    for (u32 kills = 0; kills < 4; ++kills) {
        const pid_t victim = living;
        living = StartWriter(scene, writer + 1, kEndless);
        const u32 until = scene.board->operations + scene.random.Below(8);
        for (u32 spins = scene.random.Below(2000);
             (scene.board->operations < until || spins > 0) && !scene.board->hasProblem;
             spins -= spins > 0 ? 1 : 0) {
            sched_yield();
        }
        scene.board->killed |= u64{1} << writer++;
        test::KillForked(victim);
    }
    scene.board->killed |= u64{1} << writer;
    test::KillForked(living);
    return scene.End();
}

// What any other process, and this one, may ask for while a writer lives.
Problem Ask(const Scene& scene, bool* changed) {
    const char* const conn = scene.connString.c_str();
    void* handle = nullptr;
    const Scene::Files before = scene.Everything();
    const std::size_t told = scene.log.Count(scene.InUse());
    Problem problem = Expect("Open", K9eReplStorageOpen(conn, &handle), RC_SYSTEM_ERROR);
    problem += Expect("Create to replace", K9eReplStorageCreate(conn, K9EREPL_CREATE_REPLACE),
                      RC_SYSTEM_ERROR);
    problem += Expect("Delete", K9eReplStorageDelete(conn), RC_SYSTEM_ERROR);
    problem += scene.log.Count(scene.InUse()) == told + 3 ? "" : "not told why; ";
    problem += Expect("Create", K9eReplStorageCreate(conn, K9EREPL_CREATE_NEW), RC_SYSTEM_ERROR);
    problem +=
        Expect("Create to keep", K9eReplStorageCreate(conn, K9EREPL_CREATE_KEEP_EXISTING), RC_OK);
    problem += Expect("Create 3", K9eReplStorageCreate(conn, 3), RC_OK);
    *changed = scene.Everything() != before;
    return problem;
}

// The changes that come by themselves are those of the writer's index file after its load, which
// its index thread saves once, in two steps.
Problem AskBesideAWriter(const Scene& scene) {
    constexpr u32 kStepsOfASave = 2;
    bool changed = true;
    Problem problem;
    for (u32 turn = 0; turn <= kStepsOfASave && changed && problem.empty(); ++turn) {
        problem = Ask(scene, &changed);
    }
    return problem + (changed ? "files changed" : "");
}

// A writer that stands still while others ask, then goes on.
struct Holder : model::StorageClient {
    explicit Holder(Scene& scene) {
        scene.board->Tell(scene.Write(1, 3));
        const u32 rc = Open(scene.connString);
        opened = Expect("the first Open", rc == RC_OK ? K9eReplStorageLoad(Handle()) : rc, RC_OK);
    }
    Problem opened;
};

Problem BesideALivingWriter(Scene& scene) {
    Holder holder(scene);
    Problem problem = holder.opened;
    if (problem.empty()) {
        const bool here = scene.random.OneIn(2);
        problem = here ? AskBesideAWriter(scene) : "";
        const bool well =
            here || test::AnswerOf(scene.Start([&] { return AskBesideAWriter(scene); })) == 0;
        problem += well ? "" : "the other process has a problem; ";
    }
    holder.Close();
    return problem.empty() ? scene.End() : problem + scene.board->problem;
}

// A process that asks all the time finds no moment at which the file is free.
Problem SqueezesUnderTheLock(Scene& scene) {
    Holder holder(scene);
    Problem problem = holder.opened;
    const pid_t other = scene.Start([&scene]() -> Problem {
        model::StorageClient client;
        while (scene.board->owner == 0) {
            if (client.Open(scene.connString) != RC_SYSTEM_ERROR) {
                return "another process opened the file in the middle of a squeeze";
            }
            ++scene.board->refused;
        }
        return scene.OnlyRefusals();
    });
    const u32 squeezes = 4 + scene.random.Below(8);
    for (u32 i = 0; i < squeezes && problem.empty(); ++i) {
        const u32 refused = scene.board->refused;
        i64 rev = 0;
        const u32 mode =
            scene.random.OneIn(2) ? K9EREPL_CLEAR_SQUEEZE : K9EREPL_CLEAR_SQUEEZE_BACKUP;
        problem += Expect("Insert", holder.Insert({}, nullptr, &rev), RC_OK);
        problem += Expect("Clear", K9eReplStorageClearOldRev(holder.Handle(), rev, mode), RC_OK);
        while (scene.board->refused == refused && !scene.board->hasProblem) {
            sched_yield();
        }
    }
    scene.board->owner = 1;
    problem += test::AnswerOf(other) == 0 ? "" : std::string(scene.board->problem) + "; ";
    holder.Close();
    Seen seen;
    problem += problem.empty() ? Visit(scene.connString, {1, 5, 1}, &seen) : "";
    return problem.empty() && seen.records.size() != 1 ? "holds " + Describe(seen) : problem;
}

// The lock goes with a killed process, and stays while a child that it has forked lives on.
Problem KilledHolder(Scene& scene) {
    scene.board->Tell(scene.Write(1, 3));
    const bool forks = scene.random.OneIn(2);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return "no pipe";
    }
    const pid_t process = scene.Start([&]() -> Problem {
        Holder holder(scene);
        const pid_t heir = forks ? fork() : 0;
        if (forks && heir == 0) {
            pause();
        }
        (void)!write(ends[1], &heir, sizeof heir);
        pause();
        return "not killed";
    });
    pid_t heir = 0;
    Problem problem = read(ends[0], &heir, sizeof heir) == sizeof heir ? "" : "no word; ";
    close(ends[0]);
    close(ends[1]);
    model::StorageClient client;
    problem += Expect("Open", client.Open(scene.connString), RC_SYSTEM_ERROR);
    test::KillForked(process);
    if (forks) {
        problem += Expect("Open beside the heir", client.Open(scene.connString), RC_SYSTEM_ERROR);
        kill(heir, SIGKILL);
        // No child of ours: whoever can open comes behind its end.
        while (kill(heir, 0) == 0 && client.Open(scene.connString) != RC_OK) {
            sched_yield();
        }
        client.Close();
    }
    return problem.empty() ? scene.End() : problem;
}

// The parent's close frees the lock although a child has the handles; the child's does not.
Problem ForkedChild(Scene& scene) {
    Holder holder(scene);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return "no pipe";
    }
    const pid_t child = scene.Start([&]() -> Problem {
        close(ends[1]);
        char byte = 0;
        return read(ends[0], &byte, 1) == 0 ? "" : "no end";
    });
    close(ends[0]);
    model::StorageClient client;
    Problem problem = holder.opened;
    problem += Expect("Open", client.Open(scene.connString), RC_SYSTEM_ERROR);
    holder.Close();
    problem += scene.End();
    close(ends[1]);
    return problem + (test::AnswerOf(child) == 0 ? "" : "the child died");
}

// While it lives no file can be locked, for this reason.
struct LockFault : GatedFiles {
    explicit LockFault(platform::SystemErrorKind kind)
        : GatedFiles([kind](const Attempt& attempt) {
              return attempt.call == test::SystemCall::kLockFile ? Permit{kind} : Permit{};
          }) {}
};

Problem NoLocks(Scene& scene) {
    const LockFault fault(platform::SystemErrorKind::kNotSupported);
    for (u32 turn = 1; turn <= 3; ++turn) {
        scene.board->Tell(scene.Write(turn, 6));
        const auto warnings =
            scene.log.CountContaining("The file system has no locks, nothing keeps a second ");
        if (warnings != turn) {
            return std::to_string(warnings) + " warnings of " + std::to_string(turn) + " openings";
        }
    }
    return scene.End();
}

// Locking fails, at the opening or only for the copy of a squeeze: nothing changes, and work goes
// on when the system works again.
Problem FailingLocks(Scene& scene) {
    scene.board->Tell(scene.Write(1, 4));
    const char* const conn = scene.connString.c_str();
    Problem problem;
    {
        const LockFault fault(platform::SystemErrorKind::kInputOutput);
        const Scene::Files before = scene.Everything();
        void* handle = nullptr;
        problem = Expect("Open", K9eReplStorageOpen(conn, &handle), RC_SYSTEM_ERROR);
        problem += Expect("Create to replace", K9eReplStorageCreate(conn, K9EREPL_CREATE_REPLACE),
                          RC_SYSTEM_ERROR);
        problem += Expect("Delete", K9eReplStorageDelete(conn), RC_SYSTEM_ERROR);
        problem += scene.Everything() == before ? "" : "files changed; ";
        problem += scene.log.CountContaining("Cannot lock storage file '" + scene.path) == 3
                       ? ""
                       : "not told why; ";
    }
    Holder holder(scene);
    i64 next = 0;
    K9eReplStorageGetNextRev(holder.Handle(), &next);
    if (const i64 rev = next - 1; rev > scene.board->clearBegun) {
        const LockFault fault(platform::SystemErrorKind::kInputOutput);
        scene.board->clearBegun = rev;
        problem +=
            Expect("Clear", K9eReplStorageClearOldRev(holder.Handle(), rev, K9EREPL_CLEAR_SQUEEZE),
                   RC_SYSTEM_ERROR);
    }
    holder.Close();
    return problem.empty() ? scene.End() : problem;
}

// The problem of the case, or of a writer.
template <Problem (*kRun)(Scene& scene)>
void Run(Scene& scene) {
    const Problem problem = kRun(scene);
    Require(problem.empty(), problem);
    Require(!scene.board->hasProblem, scene.board->problem);
}

constexpr std::array<Kind<Scene>, 9> kKinds{
    {{"threads", &Run<Threads>},
     {"processes", &Run<Processes>},
     {"killed processes", &Run<KilledProcesses>},
     {"beside a living writer", &Run<BesideALivingWriter>},
     {"squeezes under the lock", &Run<SqueezesUnderTheLock>},
     {"killed holder", &Run<KilledHolder>},
     {"forked child", &Run<ForkedChild>},
     {"no locks", &Run<NoLocks>},
     {"failing locks", &Run<FailingLocks>}}};

const RegisteredFamily kFamily({.name = "two-writers",
                                .title = "several writers of one file, killed holders, no locks",
                                .cases = 450,
                                .runGroup = &RunKinds<kKinds>});

}  // namespace

}  // namespace k9erepl::reliability
