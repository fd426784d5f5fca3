#include "runtime/handle_manager.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/common.h"

namespace OvraKb {
namespace {

constexpr size_t CONFIG_LINE_BUFFER_SIZE = 1024;

const char *const PYTHON_LIB_NAME_CMD =
    "python3 -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LDLIBRARY\\\"))\"";
const char *const PYTHON_LIB_DIR_CMD =
    "python3 -c \"import sysconfig; print(sysconfig.get_config_var(\\\"LIBDIR\\\"))\"";

// The interpreter that the queries ask: the one OVRA_KB_PYTHON names, else the python3 on the search path.
std::string WithChosenPython(const char *command)
{
    const char *chosen = getenv("OVRA_KB_PYTHON");
    if (chosen == nullptr || *chosen == '\0') {
        return command;
    }
    std::string quoted = "'";
    for (const char *c = chosen; *c != '\0'; ++c) {
        quoted += *c == '\'' ? std::string("'\\''") : std::string(1, *c);
    }
    return quoted + "'" + (command + std::strlen("python3"));
}

// dlerror() is read only for a line that will be written, so that an unread error stays for a later caller.
const char *DlErrorText()
{
    const char *text = dlerror();
    return text == nullptr ? "" : text;
}

}  // namespace

std::string GetPythonConfigByCmd(std::string cmd)
{
    char buffer[CONFIG_LINE_BUFFER_SIZE] = {0};
    FILE *pipe = popen(cmd.c_str(), "r");
    if (pipe == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to run python cmd[%s].", cmd.c_str());
        return "";
    }
    // One line only; the command's exit status and any further output do not matter.
    char *line = fgets(buffer, static_cast<int>(sizeof(buffer)), pipe);
    (void)pclose(pipe);
    if (line == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Cannot fetch the version information of the current python.");
        return "";
    }
    OVRA_KB_LOG(OVRA_LEVEL_DEBUG, "line:[%s]", buffer);
    std::string result(buffer);
    size_t lineFeed = result.find('\n');
    if (lineFeed != std::string::npos) {
        result.erase(lineFeed, 1);
    }
    return result;
}

std::string GetPythonLibName()
{
    std::string name = GetPythonConfigByCmd(WithChosenPython(PYTHON_LIB_NAME_CMD));
    if (!name.empty() && name.find(".so") != std::string::npos) {
        return name;
    }
    OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to get python3 [LDLIBRARY].");
    return "";
}

HandleManager::~HandleManager()
{
    if (!HandleClose()) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Release dynamic python lib failed!");
    }
}

bool HandleManager::LaunchDynamicLib()
{
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "Start to load dynamic python lib!");
    if (isLoaded_) {
        OVRA_KB_LOG(OVRA_LEVEL_INFO, "Dynamic python lib has already heen loaded!");
        return true;
    }
    std::lock_guard<std::mutex> lock(handleMtx_);
    std::string name = GetPythonLibName();
    if (name.empty()) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to get python3 lib name when trying to load library.");
        return false;
    }
    std::string dir = GetPythonConfigByCmd(WithChosenPython(PYTHON_LIB_DIR_CMD));
    if (dir.empty()) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to get python3 lib dir when trying to load library.");
        return false;
    }
    std::string path = dir + "/" + name;
    // RTLD_GLOBAL puts the runtime into the global scope, where a later start-up finds Py_Initialize.
    dlHandle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (dlHandle_ == nullptr) {
        // The two quote-space-quote sequences are part of the message as it is written.
        OVRA_KB_LOG(OVRA_LEVEL_ERROR,
                    "Python install path[%s] is invalid, please confirm that the environment\" \""
                    "variable [ld_library_path] or [ldconfig] has configured the path of the python\" \""
                    "library.",
                    path.c_str());
        return false;
    }
    isLoaded_ = true;
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "Load dynamic Python library[%s] successfully!", path.c_str());
    return true;
}

bool HandleManager::HandleClose()
{
    if (!isLoaded_) {
        return true;
    }
    if (dlHandle_ == nullptr) {
        OVRA_KB_LOG(OVRA_LEVEL_WARNING, "Failed to close the handle because it is already a nullptr.");
        return false;
    }
    if (dlclose(dlHandle_) != 0) {
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to close current handle.");
        return false;
    }
    isLoaded_ = false;
    isInited_ = false;
    dlHandle_ = nullptr;
    return true;
}

bool HandleManager::InitOvraKbFuncs()
{
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "Start to run init functions to load dynamic python lib!");
    if (isInited_) {
        OVRA_KB_LOG(OVRA_LEVEL_INFO, "Dynamic python lib has been inited!");
        return true;
    }
    std::lock_guard<std::mutex> lock(handleMtx_);
    // A null handle makes dlsym search the global scope: that is how a host's own runtime is bound.
    void *handle = dlHandle_;
#define OVRA_KB_BIND_API_ENTRY(symbol, failureName, Type)                                                       \
    symbol = reinterpret_cast<std::add_pointer_t<Type>>(dlsym(handle, #symbol));                                \
    if (symbol == nullptr) {                                                                                    \
        OVRA_KB_LOG(OVRA_LEVEL_ERROR, "Failed to run dlsym function for " failureName ", error message: [%s].", \
                    DlErrorText());                                                                             \
        return false;                                                                                           \
    }
    OVRA_KB_PYTHON_API(OVRA_KB_BIND_API_ENTRY)
#undef OVRA_KB_BIND_API_ENTRY
    isInited_ = true;
    OVRA_KB_LOG(OVRA_LEVEL_EVENT, "Init functions of loading dynamic python lib end!");
    return true;
}

}  // namespace OvraKb
