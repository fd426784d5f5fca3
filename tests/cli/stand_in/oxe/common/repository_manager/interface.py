"""A stand-in knowledge base for the ovra-kb tests. Each call appends its name and arguments, as one JSON
list, to the file that OVRA_KB_STAND_IN_LOG names; the calls that OVRA_KB_STAND_IN_FAIL lists ("init",
"finalize", ... or a keyword, separated by commas) raise a RuntimeError carrying an error dictionary, as the real
one does."""
import json
import os


def _call(name, *args):
    with open(os.environ["OVRA_KB_STAND_IN_LOG"], "a", encoding="utf-8") as log:
        log.write(json.dumps([name] + list(args)) + "\n")
    if {name, args[0] if args else None} & set(os.environ.get("OVRA_KB_STAND_IN_FAIL", "").split(",")):
        raise RuntimeError({"errCode": "STAND_IN_E1", "message": "the stand-in refused %s" % name})
    return 0


def ovra_kb_init(sys_dict, load_dict):
    return _call("init", sys_dict["soc_version"], sys_dict["core_num"])


def ovra_kb_finalize():
    return _call("finalize")


def ovra_kb_write(keyword, knowledge, config, flag):
    return _call("write", keyword, config["op_type"], flag)


def ovra_kb_delete(keyword, config, flag):
    return _call("delete", keyword, config["op_type"], flag)


def ovra_kb_search_async(keyword, config):
    _call("search", keyword, config["op_type"], config["search_type"])
    return "task"


def ovra_kb_search_get(handle):
    return True, []
