// The interpreter lock, taken and given back around one call of a hand-written baseline.
#ifndef OVRA_KB_BENCH_PYTHON_GIL_H
#define OVRA_KB_BENCH_PYTHON_GIL_H

#include <Python.h>

namespace OvraBench {

class Gil {
  public:
    Gil() : state_(PyGILState_Ensure()) {}
    ~Gil() { PyGILState_Release(state_); }
    Gil(const Gil &) = delete;
    Gil &operator=(const Gil &) = delete;

  private:
    PyGILState_STATE state_;
};

}  // namespace OvraBench

#endif  // OVRA_KB_BENCH_PYTHON_GIL_H
