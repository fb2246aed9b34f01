#pragma once

#include <pybind11/pybind11.h>

#include <memory>
#include <utility>

// How library threads reach the interpreter, and how the binding gets out of their way.
//
// Core callbacks arrive on library threads (the offline worker, HTTP and network threads, the
// client's thread); they take the interpreter lock through callPython(). Once the interpreter
// starts shutting down (closePython(), run by atexit), callPython() runs nothing: a library thread
// that asked for the lock then could wait for ever, or be ended by the interpreter in the middle
// of library code.

namespace terrane::python {

namespace py = pybind11;

// Whether calls into Python are still allowed. Any thread.
bool pythonOpen();

// Counts a library thread's visit to the interpreter, so that closePython() can wait for the
// visits under way.
class PythonVisit {
  public:
    PythonVisit();
    ~PythonVisit();
    PythonVisit(const PythonVisit&) = delete;
    PythonVisit& operator=(const PythonVisit&) = delete;
    explicit operator bool() const { return open_; }

  private:
    bool open_;
};

// Runs `body` with the interpreter lock, taken on any thread. False when the interpreter is
// closing and `body` did not run.
template <typename Body>
bool callPython(Body&& body) {
    PythonVisit visit;
    if (!visit) {
        return false;
    }
    py::gil_scoped_acquire gil;
    std::forward<Body>(body)();
    return true;
}

// Stops every later callPython() and waits, without the interpreter lock, for those under way.
// Called with the lock held, once, when the interpreter begins to shut down.
void closePython();

// Lets go of the interpreter lock for its lifetime when this thread holds it; does nothing
// otherwise. Used where a core object may be destroyed, which can join a thread that is waiting
// for the lock; safe during interpreter shutdown, unlike pybind11's own release.
class LockRelease {
  public:
    LockRelease();
    ~LockRelease();
    LockRelease(const LockRelease&) = delete;
    LockRelease& operator=(const LockRelease&) = delete;

  private:
    PyThreadState* state_ = nullptr;
};

// An owned reference to a Python object that may be dropped on any thread: with the lock when
// the interpreter is open, and left alone once it closes (the process is ending then).
class PythonRef {
  public:
    explicit PythonRef(py::object object) : object_(object.release().ptr()) {}
    ~PythonRef();
    PythonRef(const PythonRef&) = delete;
    PythonRef& operator=(const PythonRef&) = delete;
    // With the lock held.
    py::object get() const { return py::reinterpret_borrow<py::object>(object_); }

  private:
    PyObject* object_;
};

// Whether this thread is a library thread (inside a callback's visit to the interpreter, or never
// known to it), where a core object must not be destroyed: it may be one of that object's own
// threads, which its destructor joins.
bool onLibraryThread();

// Drops `core` (its last reference) on the binding's own destroyer thread instead, one object
// after the other; what is still pending when the process ends is destroyed then.
void destroyElsewhere(std::shared_ptr<void> core);

// Hands a core object to Python so that dropping Python's last reference lets go of the
// interpreter lock around the core destructor (which may join a thread waiting for the lock).
// When that last reference goes on a library thread (a callback that drops the last Python
// reference to the client that called it), the destructor runs on another thread instead.
template <typename T>
std::shared_ptr<T> releasingHolder(std::shared_ptr<T> core) {
    T* raw = core.get();
    if (!raw) {
        return {};
    }
    return std::shared_ptr<T>(raw, [core = std::move(core)](T*) mutable {
        if (onLibraryThread()) {
            destroyElsewhere(std::move(core));
            return;
        }
        LockRelease release;
        core.reset();
    });
}

}  // namespace terrane::python
