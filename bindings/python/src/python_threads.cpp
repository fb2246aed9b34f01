#include "python_threads.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace terrane::python {

namespace {

std::atomic<bool> closing{false};
std::atomic<int> visits{0};
thread_local int visitsOnThisThread = 0;

// The thread that destroys core objects let go of on library threads, one after the other.
class Destroyer {
  public:
    ~Destroyer() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_one();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    void destroy(std::shared_ptr<void> core) {
        {
            std::lock_guard lock(mutex_);
            pending_.push_back(std::move(core));
            if (!thread_.joinable()) {
                thread_ = std::thread([this] { run(); });
            }
        }
        changed_.notify_one();
    }

  private:
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
            if (pending_.empty()) {
                return;
            }
            std::shared_ptr<void> core = std::move(pending_.front());
            pending_.pop_front();
            lock.unlock();
            core.reset();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::shared_ptr<void>> pending_;
    bool stopping_ = false;
    std::thread thread_;
};

Destroyer destroyer;

}  // namespace

bool pythonOpen() {
    return !closing.load();
}

// The count goes up before the flag is read: closePython() sets the flag and then waits for the
// count, so a visit either sees the flag or is waited for.
PythonVisit::PythonVisit() {
    ++visitsOnThisThread;
    visits.fetch_add(1);
    open_ = !closing.load();
}

PythonVisit::~PythonVisit() {
    visits.fetch_sub(1);
    --visitsOnThisThread;
}

bool onLibraryThread() {
    return visitsOnThisThread > 0 || PyGILState_GetThisThreadState() == nullptr;
}

void destroyElsewhere(std::shared_ptr<void> core) {
    destroyer.destroy(std::move(core));
}

void closePython() {
    closing.store(true);
    LockRelease release;
    while (visits.load() > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

LockRelease::LockRelease() {
    if (Py_IsInitialized() && PyGILState_Check()) {
        state_ = PyEval_SaveThread();
    }
}

LockRelease::~LockRelease() {
    if (state_) {
        PyEval_RestoreThread(state_);
    }
}

PythonRef::~PythonRef() {
    if (!object_) {
        return;
    }
    if (Py_IsInitialized() && PyGILState_Check()) {
        Py_DECREF(object_);
        return;
    }
    callPython([this] { Py_DECREF(object_); });
}

}  // namespace terrane::python
