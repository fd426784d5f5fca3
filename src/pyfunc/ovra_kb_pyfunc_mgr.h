#ifndef OVRA_KB_PYFUNC_OVRA_KB_PYFUNC_MGR_H
#define OVRA_KB_PYFUNC_OVRA_KB_PYFUNC_MGR_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "common/singleton.h"
#include "pywrapper/pywrapper.h"
#include "runtime/python_api.h"

namespace OvraKb {

// Brings the Python side up for the first user and down after the last one.
class OvraKbPyfuncMgr : public Singleton<OvraKbPyfuncMgr> {
  public:
    virtual ~OvraKbPyfuncMgr() = default;

    bool PyObjectInit();
    void PyObjectDeinit();
    bool Init();
    const PyObjectPtr &GetOvraKbInterface() const { return ovraKbInterface_; }

    void PyEnvInit();
    void PyEnvDeinit();

    // Gives the calling thread, before it takes the interpreter lock, a Python thread state that lasts
    // until the thread ends or this library finalises the interpreter, instead of one made and destroyed
    // by every call. A thread that owns a state already (the initialising thread, a host's Python thread)
    // is left as it is. True when the thread's state is this library's own rather than a host's.
    static bool KeepCallerThreadState();

    PyThreadState *SavedThreadState() const { return savedThreadState_; }
    bool PyAlreadyInited() const { return pyAlreadyInited_; }

    // Successful initialisations not yet matched by a finalisation. Changed only under
    // gInitPyFuncMtx_; atomic because the entry logs read it without that lock.
    static std::atomic<std::uint64_t> reference_;
    // Serialises start-up and tear-down; the outermost lock of the library.
    static std::mutex gInitPyFuncMtx_;
    // Counts the interpreters this library finalised: the thread states kept for one die with it.
    static std::atomic<std::uint64_t> interpreterGeneration_;
    // Taken around this library's Py_Finalize and by a thread that gives its kept state back as it ends,
    // so that the two never overlap. Taken before the interpreter lock, never while holding it.
    static std::mutex gKeptStatesMtx_;

  private:
    friend class Singleton<OvraKbPyfuncMgr>;
    OvraKbPyfuncMgr();

    static bool CallerIsHostPythonThread();

    PyThreadState *savedThreadState_ = nullptr;
    bool pyAlreadyInited_ = false;
    PyObjectPtr ovraKbInterface_;
};

// The operations of the knowledge base in flight. The finalisation that takes the Python side down closes the
// gate: it waits for the calls in flight (a search ends at its next poll, with status 3), and calls that come
// later are refused, until the Python side is up again. Without it, a finalisation while other threads call
// would pull the interpreter from under them.
class CallGate {
  public:
    // Admits one call while the gate is open; Admitted() says whether it was.
    class Call {
      public:
        Call();
        ~Call();
        Call(const Call &) = delete;
        Call &operator=(const Call &) = delete;
        bool Admitted() const { return admitted_; }

      private:
        bool admitted_;
    };

    // Whether a finalisation is waiting for the calls in flight.
    static bool Closing() { return closing_.load(std::memory_order_relaxed); }
    // Refuses new calls and waits until the calls in flight have returned.
    static void Close();
    static void Open();

  private:
    static std::mutex mutex_;
    static std::condition_variable drained_;
    static std::uint64_t inFlight_;
    static std::atomic<bool> closing_;
};

// Spans one OvraKbFinalize. When the finalisation is the last user's, it closes the call gate and waits for the
// calls in flight first, giving the interpreter lock back meanwhile if this thread holds it (a Python host's
// thread). At its end the gate is open again if the Python side is still up (the module refused to finalise,
// or another user initialised meanwhile). Finalisations run one at a time.
class Finalisation {
  public:
    Finalisation();
    ~Finalisation();
    Finalisation(const Finalisation &) = delete;
    Finalisation &operator=(const Finalisation &) = delete;

  private:
    std::unique_lock<std::mutex> oneAtATime_;
};

// Holds the interpreter lock for the life of the object, from any thread. The thread keeps its Python thread
// state between calls, so the lock functions only restore and park it. On a state that this library owns, an
// error still pending when the lock is given back is discarded: nothing a call leaves behind reaches the
// thread's next call. A host's own thread state is left as the host's code expects it.
class GilGuard {
  public:
    // IN_TURN: the calling threads take the lock in turns (see CallerTurns). AT_ONCE: the poll of a search that
    // waits for its task, which must not wait for others' turns between two of its cycles.
    enum class Turn { IN_TURN, AT_ONCE };
    explicit GilGuard(Turn turn = Turn::IN_TURN);
    ~GilGuard();
    GilGuard(const GilGuard &) = delete;
    GilGuard &operator=(const GilGuard &) = delete;

  private:
    bool libraryOwnsState_;
    PyGILState_STATE state_;
};

}  // namespace OvraKb

#endif  // OVRA_KB_PYFUNC_OVRA_KB_PYFUNC_MGR_H
