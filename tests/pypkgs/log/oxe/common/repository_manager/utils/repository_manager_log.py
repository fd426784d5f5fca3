"""Log module of the scripted test packages; OVRA_TEST_LOG_WITHOUT_DICT leaves out get_py_exception_dict."""
import os
import traceback

from ovra_scripted import call


def _exception_str(exc_type, exc_value, exc_tb):
    return "".join(traceback.format_exception(exc_type, exc_value, exc_tb))


def _exception_dict(exc_type, exc_value, exc_tb):
    if exc_value is not None and exc_value.args and isinstance(exc_value.args[0], dict):
        return dict((str(k), str(v)) for k, v in exc_value.args[0].items())
    name = getattr(exc_type, "__name__", str(exc_type))
    return {"errCode": "EC_TEST", "error_type": name, "message": str(exc_value)}


def get_py_exception_str(exc_type, exc_value, exc_tb):
    return call("get_py_exception_str", (exc_type, exc_value, exc_tb), _exception_str)


def get_py_exception_dict(exc_type, exc_value, exc_tb):
    return call("get_py_exception_dict", (exc_type, exc_value, exc_tb), _exception_dict)


if os.environ.get("OVRA_TEST_LOG_WITHOUT_DICT"):
    del get_py_exception_dict
