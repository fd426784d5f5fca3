// A CPython extension module over init, search and finalize (write and delete take the lock as search does), for
// tests in which Python is the host process. Every call gives the interpreter lock back while the library works, as
// a well-behaved extension must: the library takes the lock itself when it needs it.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "ovra_kb/ovra_kb_api.h"

namespace py = pybind11;

PYBIND11_MODULE(ovra_host, module)
{
#if PY_VERSION_HEX < 0x03070000
    // Before 3.7 the interpreter lock exists only once threads are initialised; an extension that gives the
    // lock back around its calls has to create it first.
    PyEval_InitThreads();
#endif
    const auto released = py::call_guard<py::gil_scoped_release>();
    module.def("init", &OvraKbInit, released);
    module.def("finalize", &OvraKbFinalize, released);
    module.def("search", [](const std::string &keyword, const OvraKb::StrMap &config) {
        std::vector<OvraKb::StrMap> rows;
        std::uint32_t status = 0;
        {
            py::gil_scoped_release released;
            status = OvraKbSearch(keyword, config, rows);
        }
        return py::make_tuple(status, rows);
    });
}
