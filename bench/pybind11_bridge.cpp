// The same Python calls made the way a pybind11 embedding host makes them: py::dict, attribute calls with
// C++ arguments converted by pybind11, and its STL casters for the rows. The lock is taken and given back
// with PyGILState_Ensure and PyGILState_Release around every call, as the library does.
#include <pybind11/embed.h>
#include <pybind11/stl.h>

#include "bench.h"
#include "python_gil.h"

namespace py = pybind11;

namespace OvraBench {
namespace {

constexpr std::uint32_t SUCCESS = OvraKb::OVRA_KB_SUCCESS;
constexpr std::uint32_t KEY_MISSING = OvraKb::OVRA_KB_CONFIG_KEY_MISSING;
constexpr std::uint32_t CALL_FAILED = OvraKb::OVRA_KB_PYTHON_CALL_FAILED;

// Created and dropped under the lock by Attach/Detach.
py::module_ *g_module = nullptr;

std::uint32_t Write(const std::string &keyword, const std::string &knowledge, const StrMap &config, bool flag)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    Gil gil;
    try {
        py::dict dict;
        dict["op_type"] = opType->second;
        py::object reply = g_module->attr("ovra_kb_write")(keyword, knowledge, dict, static_cast<int>(flag));
        return reply.cast<int>() == 0 ? SUCCESS : CALL_FAILED;
    } catch (const std::exception &) {
        return CALL_FAILED;
    }
}

std::uint32_t Erase(const std::string &keyword, const StrMap &config, bool flag)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    Gil gil;
    try {
        py::dict dict;
        dict["op_type"] = opType->second;
        py::object reply = g_module->attr("ovra_kb_delete")(keyword, dict, static_cast<int>(flag));
        return reply.cast<int>() == 0 ? SUCCESS : CALL_FAILED;
    } catch (const std::exception &) {
        return CALL_FAILED;
    }
}

std::uint32_t Search(const std::string &keyword, const StrMap &config, std::vector<StrMap> &results)
{
    auto opType = config.find("op_type");
    if (opType == config.end()) {
        return KEY_MISSING;
    }
    // Created and released under the lock; empty (and so safe to destroy) outside it.
    py::object task;
    {
        Gil gil;
        try {
            py::dict dict;
            dict["op_type"] = opType->second;
            dict["return_type"] = "str";
            auto searchType = config.find("search_type");
            if (searchType != config.end()) {
                dict["search_type"] = searchType->second;
            } else {
                dict["search_type"] = py::none();
            }
            task = g_module->attr("ovra_kb_search_async")(keyword, dict);
            if (!py::isinstance<py::str>(task) || py::len(task) == 0) {
                task = py::object();
                return CALL_FAILED;
            }
        } catch (const std::exception &) {
            task = py::object();
            return CALL_FAILED;
        }
    }
    for (;;) {
        {
            Gil gil;
            try {
                py::tuple reply = g_module->attr("ovra_kb_search_get")(task);
                if (py::bool_(reply[0])) {
                    auto rows = reply[1].cast<std::vector<StrMap>>();
                    results.insert(results.end(), std::make_move_iterator(rows.begin()),
                                   std::make_move_iterator(rows.end()));
                    task = py::object();
                    return SUCCESS;
                }
            } catch (const std::exception &) {
                task = py::object();
                return CALL_FAILED;
            }
        }
        SleepOnePollInterval();
    }
}

std::uint32_t InitFinalize(const StrMap &sysConfig, const StrMap &loadConfig)
{
    {
        Gil gil;
        try {
            py::dict sysDict;
            sysDict["soc_version"] = sysConfig.at("soc_version");
            sysDict["core_num"] = sysConfig.at("core_num");
            py::dict loadDict;
            loadDict["op_bank_path"] = loadConfig.at("op_bank_path");
            if (g_module->attr("ovra_kb_init")(sysDict, loadDict).cast<int>() != 0) {
                return CALL_FAILED;
            }
        } catch (const std::exception &) {
            return CALL_FAILED;
        }
    }
    Gil gil;
    try {
        g_module->attr("ovra_kb_finalize")();
        return SUCCESS;
    } catch (const std::exception &) {
        return CALL_FAILED;
    }
}

}  // namespace

void AttachPybind11()
{
    Gil gil;
    g_module = new py::module_(py::module_::import(KB_MODULE));
}

void DetachPybind11()
{
    Gil gil;
    delete g_module;
    g_module = nullptr;
}

const Bridge &Pybind11Bridge()
{
    static const Bridge bridge = {"pybind11", Write, Erase, Search, InitFinalize};
    return bridge;
}

}  // namespace OvraBench
