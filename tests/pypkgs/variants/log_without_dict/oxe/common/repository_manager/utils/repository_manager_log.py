"""A log module that lacks get_py_exception_dict."""
import traceback


def get_py_exception_str(exc_type, exc_value, exc_tb):
    return "".join(traceback.format_exception(exc_type, exc_value, exc_tb))
