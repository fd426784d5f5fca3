#include "pyfunc/ovra_kb_pyfunc_mgr.h"

#include <dlfcn.h>
#include <signal.h>
#include <limits.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <string>

#include "common/common.h"
#include "runtime/handle_manager.h"

namespace OvraKb {
namespace {

const char *const KB_INTERFACE_MODULE = "oxe.common.repository_manager.interface";
const char *const KB_LOG_MODULE = "oxe.common.repository_manager.utils.repository_manager_log";

// Before it finalises, Python joins the threading module's main thread, which is the thread that
// first imported threading. Finalising from any other thread would wait for ever on some
// runtimes, so the finalising thread takes that identity over. The caller holds the lock.
const char *const ADOPT_THREADING_MAIN_THREAD =
    "import sys\n"
    "threading = sys.modules.get('threading')\n"
    "main = getattr(threading, '_main_thread', None)\n"
    "if main is not None and getattr(main, '_ident', None) not in (None, threading.get_ident()):\n"
    "    main._ident = threading.get_ident()\n";

// Python installs its own SIGINT handler and ignores SIGPIPE and SIGXFSZ when it starts, and resets
// the handlers it believes are its own when it stops. The host's dispositions of these signals are
// recorded before either step and put back as soon as it returns, so that a host's Ctrl-C still
// ends it and a handler that it installed in between survives.
class HostSignalDispositions {
  public:
    HostSignalDispositions()
    {
        for (size_t i = 0; i < KEPT_SIGNALS.size(); ++i) {
            (void)sigaction(KEPT_SIGNALS[i], nullptr, &saved_[i]);
        }
    }
    ~HostSignalDispositions()
    {
        for (size_t i = 0; i < KEPT_SIGNALS.size(); ++i) {
            (void)sigaction(KEPT_SIGNALS[i], &saved_[i], nullptr);
        }
    }
    HostSignalDispositions(const HostSignalDispositions &) = delete;
    HostSignalDispositions &operator=(const HostSignalDispositions &) = delete;

  private:
    static constexpr std::array<int, 3> KEPT_SIGNALS = {SIGINT, SIGPIPE, SIGXFSZ};
    std::array<struct sigaction, KEPT_SIGNALS.size()> saved_{};
};

// While the Python side comes up or goes down, SIGINT is blocked on this thread, and so on the python3
// processes that the discovery queries start: one that comes is held, and reaches the host's own disposition
// once the start-up or the tear-down is over, instead of Python's handler (which would lose it or break the
// start-up), an interrupted query, or a query process killed halfway.
class InterruptHeld {
  public:
    InterruptHeld()
    {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        (void)pthread_sigmask(SIG_BLOCK, &interrupt, &saved_);
    }
    ~InterruptHeld() { (void)pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
    InterruptHeld(const InterruptHeld &) = delete;
    InterruptHeld &operator=(const InterruptHeld &) = delete;

  private:
    sigset_t saved_{};
};

// Where the interpreter finds the knowledge-base package. A deployment puts folders in front of the module
// search path with OVRA_KB_PYTHONPATH (when this library starts the interpreter); without it, and without
// OVRA_KB_PYTHON, a package that no folder of the path holds is looked for last in the folder installed beside
// this library. The caller holds the lock; a failure here only shows as the imports' own failure.
const char *const PREPARE_PACKAGE_PATH =
    "import os, sys\n"
    "if front is not None:\n"
    "    sys.path[0:0] = [entry for entry in front.split(os.pathsep) if entry]\n"
    "elif installed and os.path.isdir(installed) and installed not in sys.path:\n"
    "    import importlib.util\n"
    "    def found(name):\n"
    "        try:\n"
    "            return importlib.util.find_spec(name) is not None\n"
    "        except Exception:\n"
    "            return False\n"
    "    if not all(found(name) for name in modules):\n"
    "        sys.path.append(installed)\n";

const char *NonEmptyEnv(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// The package folder of an installation: this library's own folder, then the relative path from the library
// folder to the data folder that the build was configured with.
std::string InstalledPackageFolder()
{
    Dl_info self{};
    char resolved[PATH_MAX];
    if (dladdr(reinterpret_cast<void *>(&InstalledPackageFolder), &self) == 0 || self.dli_fname == nullptr ||
        realpath(self.dli_fname, resolved) == nullptr) {
        return "";
    }
    std::string library(resolved);
    return library.substr(0, library.rfind('/') + 1) + OVRA_KB_PACKAGE_FROM_LIBDIR;
}

void PreparePackagePath(bool interpreterIsOurs)
{
    HandleManager &api = PyApi();
    const char *front = NonEmptyEnv("OVRA_KB_PYTHONPATH");
    bool chosen = front != nullptr || NonEmptyEnv("OVRA_KB_PYTHON") != nullptr;
    std::string installed = chosen ? "" : InstalledPackageFolder();
    PyObjectPtr builtins(api.PyImport_ImportModule("builtins"));
    PyObjectPtr done(builtins.get() == nullptr
                         ? nullptr
                         : api.PyObject_CallMethod(builtins.get(), "exec", "s{s:z,s:s,s:(ss)}", PREPARE_PACKAGE_PATH,
                                                   "front", interpreterIsOurs ? front : nullptr, "installed",
                                                   installed.c_str(), "modules", KB_INTERFACE_MODULE, KB_LOG_MODULE));
    if (done.get() == nullptr) {
        PyWrapper::DiscardPendingError();
    }
}

// OVRA_KB_RELEASE_KEPT=1 when the Python side comes up turns release mode on until it goes down.
bool ReleaseKeptRequested()
{
    const char *value = getenv("OVRA_KB_RELEASE_KEPT");
    return value != nullptr && std::string(value) == "1";
}

void AdoptThreadingMainThread()
{
    HandleManager &api = PyApi();
    PyObjectPtr builtins(api.PyImport_ImportModule("builtins"));
    PyObjectPtr result(builtins.get() == nullptr
                           ? nullptr
                           : api.PyObject_CallMethod(builtins.get(), "exec", "s{}", ADOPT_THREADING_MAIN_THREAD));
    if (result.get() == nullptr) {
        api.PyErr_Print();
    }
}

// The Python thread state that a thread keeps between its calls, and the interpreter it belongs to.
// A null state with a current generation marks a thread whose state is owned elsewhere.
struct KeptThreadState {
    std::uint64_t generation = 0;
    PyThreadState *state = nullptr;
    // Whether the thread's state, kept here or not, is this library's own rather than a host's.
    bool libraryOwned = false;

    KeptThreadState() = default;
    KeptThreadState(const KeptThreadState &) = delete;
    KeptThreadState &operator=(const KeptThreadState &) = delete;
    ~KeptThreadState() { GiveBack(); }

    // Runs as the thread ends. The state is given back through the lock functions rather than by
    // restoring the pointer: if Python already deleted it (a Python thread's own end does), the
    // ensure makes a fresh one and the first release deletes that, which the check then sees.
    void GiveBack()
    {
        if (state == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> lock(OvraKbPyfuncMgr::gKeptStatesMtx_);
        HandleManager &api = PyApi();
        if (generation != OvraKbPyfuncMgr::interpreterGeneration_.load() || !api.IsInited() ||
            api.Py_IsInitialized() == 0) {
            return;
        }
        PyGILState_STATE restored = api.PyGILState_Ensure();
        api.PyGILState_Release(PyGILState_LOCKED);
        if (api.PyGILState_Check() == 1) {
            api.PyGILState_Release(restored);
        }
        state = nullptr;
    }
};

thread_local KeptThreadState tKeptThreadState;

}  // namespace

std::atomic<std::uint64_t> OvraKbPyfuncMgr::reference_{0};
std::mutex OvraKbPyfuncMgr::gInitPyFuncMtx_;
std::atomic<std::uint64_t> OvraKbPyfuncMgr::interpreterGeneration_{1};
std::mutex OvraKbPyfuncMgr::gKeptStatesMtx_;

bool OvraKbPyfuncMgr::KeepCallerThreadState()
{
    std::uint64_t generation = interpreterGeneration_.load(std::memory_order_acquire);
    KeptThreadState &kept = tKeptThreadState;
    if (kept.generation == generation) {
        return kept.libraryOwned;
    }
    // A state kept for an earlier interpreter went with it; this thread needs a new one.
    kept.generation = generation;
    kept.state = nullptr;
    kept.libraryOwned = false;
    HandleManager &api = PyApi();
    // One ensure that is never matched keeps the state alive; parking it frees the lock again.
    PyGILState_STATE state = api.PyGILState_Ensure();
    if (state == PyGILState_LOCKED) {
        // The thread held the lock already, so its state belongs to its owner.
        api.PyGILState_Release(state);
        return false;
    }
    // In an interpreter this library started every state but the parked one is made here; in a host's, the
    // ensure may have restored the state of one of the host's Python threads instead of making a new one.
    kept.libraryOwned = !Singleton<OvraKbPyfuncMgr>::Instance().pyAlreadyInited_ || !CallerIsHostPythonThread();
    kept.state = api.PyEval_SaveThread();
    return kept.libraryOwned;
}

// The caller holds the lock. The process's main thread, and every thread that Python's threading module knows,
// run the host's Python code; a thread that the host never gave to Python is known to neither.
bool OvraKbPyfuncMgr::CallerIsHostPythonThread()
{
    if (static_cast<pid_t>(syscall(SYS_gettid)) == getpid()) {
        return true;
    }
    HandleManager &api = PyApi();
    PyObject *threading = api.PyDict_GetItemString(api.PyImport_GetModuleDict(), "threading");
    if (threading == nullptr) {
        return false;
    }
    PyObjectPtr active(api.PyObject_GetAttrString(threading, "_active"));
    PyObjectPtr ident(api.PyObject_CallMethod(threading, "get_ident", ""));
    bool known = active.get() == nullptr || ident.get() == nullptr ||
                 api.PyDict_GetItem(active.get(), ident.get()) != nullptr;
    // A threading module without these names fails the lookups: then the thread counts as the host's.
    PyWrapper::DiscardPendingError();
    return known;
}

std::mutex CallGate::mutex_;
std::condition_variable CallGate::drained_;
std::uint64_t CallGate::inFlight_ = 0;
std::atomic<bool> CallGate::closing_{false};

CallGate::Call::Call()
{
    std::lock_guard<std::mutex> lock(mutex_);
    admitted_ = !closing_;
    inFlight_ += admitted_ ? 1 : 0;
}

CallGate::Call::~Call()
{
    if (!admitted_) {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (--inFlight_ == 0) {
        drained_.notify_all();
    }
}

void CallGate::Close()
{
    std::unique_lock<std::mutex> lock(mutex_);
    closing_ = true;
    drained_.wait(lock, [] { return inFlight_ == 0; });
}

void CallGate::Open()
{
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = false;
}

namespace {
std::mutex gFinalisationMtx;

// A Python host may finalise from a thread that holds the interpreter lock; the calls it waits for need it.
void CloseGateWithoutTheInterpreterLock()
{
    HandleManager &api = PyApi();
    bool holdsLock = api.IsInited() && api.Py_IsInitialized() != 0 && api.PyGILState_Check() == 1;
    PyThreadState *state = holdsLock ? api.PyEval_SaveThread() : nullptr;
    CallGate::Close();
    if (state != nullptr) {
        api.PyEval_RestoreThread(state);
    }
}
}  // namespace

Finalisation::Finalisation() : oneAtATime_(gFinalisationMtx)
{
    if (OvraKbPyfuncMgr::reference_.load() == 1) {
        CloseGateWithoutTheInterpreterLock();
    }
}

Finalisation::~Finalisation()
{
    std::lock_guard<std::mutex> lock(OvraKbPyfuncMgr::gInitPyFuncMtx_);
    if (OvraKbPyfuncMgr::reference_.load() != 0) {
        CallGate::Open();
    }
}

namespace {

// The native threads that call the library take the interpreter lock in turns. CPython's lock wakes a thread
// that waits for it at every release, and a thread asleep takes tens of microseconds to hand it to: with dozens
// of callers waiting for it, every call paid for wake-ups and hand-overs, more callers made the whole slower,
// and the knowledge base's worker threads, which give the lock back at every row they read, were starved.
// Here one thread has the turn and takes the lock for its calls; the others wait for the turn in the order they
// came, the first of them until a deadline, the rest asleep until they are first. The thread with the turn keeps
// it from one call to its next as long as it calls again within IDLE of its last call, for SLICE at most while
// others wait: calls made in a row take the lock again without a hand-over, and a thread that stops calling
// holds the others up for IDLE at most.
class CallerTurns {
  public:
    // Returns when the calling thread has the turn.
    void Take()
    {
        Waiter &self = tWaiter;
        std::unique_lock<std::mutex> lock(mutex_);
        Clock::time_point now = Clock::now();
        if (holder_ == &self) {
            if (first_ == nullptr || now - since_ < SLICE) {
                last_ = now;
                return;
            }
            PassToFirst(now);  // its slice is used up: it waits behind the others
        } else if (first_ == nullptr && (holder_ == nullptr || now - last_ >= IDLE)) {
            Hold(self, now);
            return;
        }
        WaitInLine(self, lock, now);
    }

  private:
    using Clock = std::chrono::steady_clock;
    // Well above the gap between two calls made in a row (a few microseconds), and short, since every thread
    // that calls now and then, with work of its own in between, keeps the next one waiting that long.
    static constexpr std::chrono::microseconds IDLE{50};
    static constexpr std::chrono::microseconds SLICE{1000};

    struct Waiter {
        std::condition_variable wake;
        bool hasTurn = false;
        Waiter *next = nullptr;
    };

    void WaitInLine(Waiter &self, std::unique_lock<std::mutex> &lock, Clock::time_point now)
    {
        self.next = nullptr;
        self.hasTurn = false;
        (first_ == nullptr ? first_ : lastWaiter_->next) = &self;
        lastWaiter_ = &self;
        while (!self.hasTurn) {
            if (first_ != &self) {
                self.wake.wait(lock);
                continue;
            }
            Clock::time_point due = holder_ == nullptr ? now : std::min(since_ + SLICE, last_ + IDLE);
            if (now >= due) {
                PassToFirst(now);
                break;
            }
            self.wake.wait_until(lock, due);
            now = Clock::now();
        }
    }

    void Hold(Waiter &waiter, Clock::time_point now)
    {
        holder_ = &waiter;
        since_ = last_ = now;
    }

    // The first waiting thread takes the turn; the next one becomes first and starts watching the deadline.
    void PassToFirst(Clock::time_point now)
    {
        Waiter *taker = first_;
        first_ = taker->next;
        if (first_ == nullptr) {
            lastWaiter_ = nullptr;
        } else {
            first_->wake.notify_one();
        }
        Hold(*taker, now);
        taker->hasTurn = true;
        taker->wake.notify_one();
    }

    static thread_local Waiter tWaiter;

    std::mutex mutex_;
    // Compared, never followed: a thread that ended with the turn leaves it to the first waiter after IDLE.
    Waiter *holder_ = nullptr;
    Clock::time_point since_;  // when the holder got the turn
    Clock::time_point last_;   // the holder's latest call
    Waiter *first_ = nullptr;
    Waiter *lastWaiter_ = nullptr;
};

thread_local CallerTurns::Waiter CallerTurns::tWaiter;
CallerTurns gCallerTurns;

}  // namespace

GilGuard::GilGuard(Turn turn)
{
    HandleManager &api = PyApi();
    // A thread that holds the interpreter lock already (a Python host's) must not wait for a turn behind threads
    // that wait for that lock.
    if (turn == Turn::IN_TURN && api.PyGILState_Check() != 1) {
        gCallerTurns.Take();
    }
    libraryOwnsState_ = OvraKbPyfuncMgr::KeepCallerThreadState();
    state_ = api.PyGILState_Ensure();
}

GilGuard::~GilGuard()
{
    if (libraryOwnsState_) {
        PyWrapper::DiscardPendingError();
    }
    PyApi().PyGILState_Release(state_);
}

// The handle manager is built first so that it is destroyed last: the module reference this
// object drops at exit is released through the manager's table.
OvraKbPyfuncMgr::OvraKbPyfuncMgr()
{
    (void)PyApi();
}

void OvraKbPyfuncMgr::PyEnvInit()
{
    HandleManager &api = PyApi();
    if (api.Py_IsInitialized() != 0) {
        OVRA_KB_LOG(OVRA_LEVEL_EVENT, "OVRA_KB_Py has already been initialized.");
        pyAlreadyInited_ = true;
    } else {
        OVRA_KB_LOG(OVRA_LEVEL_EVENT, "Start to run Py_IsInitialized now.");
        pyAlreadyInited_ = false;
        HostSignalDispositions hostSignals;
        api.Py_Initialize();
    }
    if (api.PyEval_ThreadsInitialized() == 0) {
        OVRA_KB_LOG(OVRA_LEVEL_EVENT, "Start to run PyEval_ThreadsInitialized now.");
        api.PyEval_InitThreads();
    }
    if (api.PyGILState_Check() != 1) {
        return;
    }
    // Park this thread's state so that the global lock is free for every caller thread.
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "Start to run PyEval_SaveThread now.");
    savedThreadState_ = api.PyEval_SaveThread();
    // That state is the interpreter's own: this thread keeps no other. It is this library's when this
    // library started the interpreter, and the host's otherwise.
    tKeptThreadState.generation = interpreterGeneration_.load();
    tKeptThreadState.state = nullptr;
    tKeptThreadState.libraryOwned = !pyAlreadyInited_;
}

void OvraKbPyfuncMgr::PyEnvDeinit()
{
    HandleManager &api = PyApi();
    if (!pyAlreadyInited_ && api.Py_IsInitialized() != 0) {
        // Py_Finalize deletes every thread state, the kept ones too: threads forget theirs. The lock comes
        // before the interpreter lock, as on a thread that gives its state back.
        std::lock_guard<std::mutex> keptStates(gKeptStatesMtx_);
        ++interpreterGeneration_;
        if (savedThreadState_ != nullptr) {
            api.PyEval_RestoreThread(savedThreadState_);
        }
        AdoptThreadingMainThread();
        HostSignalDispositions hostSignals;
        api.Py_Finalize();
    }
    (void)api.HandleClose();
    pyAlreadyInited_ = false;
}

bool OvraKbPyfuncMgr::Init()
{
    ovraKbInterface_ = PyWrapper::ImportModule(KB_INTERFACE_MODULE);
    if (ovraKbInterface_.get() == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "OVRA_KB import ovraKbInterface_ error");
        return false;
    }
    return true;
}

bool OvraKbPyfuncMgr::PyObjectInit()
{
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "OvraKbPyfuncMgr: Enter PyObjectInit, reference_ is %lu!",
                static_cast<unsigned long>(reference_.load()));
    std::lock_guard<std::mutex> lock(gInitPyFuncMtx_);
    if (reference_ != 0) {
        OVRA_KB_LOG(OVRA_LEVEL_INFO, "PyObjectInit: PyObject has been initialized, no need to re-initialize!");
        ++reference_;
        return true;
    }
    InterruptHeld interruptHeld;
    HandleManager &api = PyApi();
    PyWrapper::SetReleaseKept(ReleaseKeptRequested());
    // A runtime already in the global scope (the host's, or one loaded earlier) is used as it is.
    if (dlsym(RTLD_DEFAULT, "Py_Initialize") == nullptr && !api.LaunchDynamicLib()) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "PyObjectInit: Load python error");
        return false;
    }
    if (!api.InitOvraKbFuncs()) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "PyObjectInit: Init python funcs error");
        return false;
    }
    PyEnvInit();

    bool result = false;
    {
        GilGuard gil;
        PreparePackagePath(!pyAlreadyInited_);
        PyWrapper::g_pyFormatExceptionFunc = PyWrapper::GetFormatExcetpionFunc();
        PyObjectPtr logModule = PyWrapper::ImportModule(KB_LOG_MODULE);
        if (logModule.get() == nullptr) {
            OVRA_KB_LOG(OVRA_LEVEL_ERROR, "PyObjectInit: Import repository_manager_log error");
        } else {
            PyObject *printFunc = api.PyObject_GetAttrString(logModule.get(), "get_py_exception_str");
            PyObject *uploadFunc = api.PyObject_GetAttrString(logModule.get(), "get_py_exception_dict");
            if (printFunc == nullptr || uploadFunc == nullptr) {
                OVRA_KB_LOG(OVRA_LEVEL_ERROR, "PyObjectInit: pyPrintFunc or pyUploadFunc is nullptr.");
            } else {
                PyWrapper::g_pyPrintExceptionFunc = printFunc;
                PyWrapper::g_pyUploadExceptionFunc = uploadFunc;
                if (!Init()) {
                    OVRA_KB_LOG(OVRA_LEVEL_ERROR, "PyObjectInit: Run Init error.");
                } else {
                    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "OvraKbPyfuncMgr: Run PyObjectInit successfully!");
                    ++reference_;
                    CallGate::Open();
                    result = true;
                }
            }
        }
        // The log module's reference is dropped here, while the lock is still held.
    }
    return result;
}

void OvraKbPyfuncMgr::PyObjectDeinit()
{
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "OvraKbPyfuncMgr: enter PyObjectDeinit function, reference_[%lu]",
                static_cast<unsigned long>(reference_.load()));
    std::lock_guard<std::mutex> lock(gInitPyFuncMtx_);
    --reference_;
    if (reference_ != 0) {
        OVRA_KB_LOG(OVRA_LEVEL_INFO, "PyObject does not need to deinit");
        return;
    }
    InterruptHeld interruptHeld;
    {
        GilGuard gil;
        ovraKbInterface_.ResetObject();
    }
    PyEnvDeinit();
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "OvraKbPyfuncMgr: PyObjectDeinit function end successfully!");
}

}  // namespace OvraKb
