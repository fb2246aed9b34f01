#include "python_threads.hpp"

#include <atomic>
#include <chrono>
#include <thread>

namespace terrane::python {

namespace {

std::atomic<bool> closing{false};
std::atomic<int> visits{0};

}  // namespace

bool pythonOpen() {
    return !closing.load();
}

// The count goes up before the flag is read: closePython() sets the flag and then waits for the
// count, so a visit either sees the flag or is waited for.
PythonVisit::PythonVisit() {
    visits.fetch_add(1);
    open_ = !closing.load();
}

PythonVisit::~PythonVisit() {
    visits.fetch_sub(1);
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
