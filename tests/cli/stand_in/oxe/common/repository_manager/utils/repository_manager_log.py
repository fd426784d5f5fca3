"""The log module beside the stand-in knowledge base: its errors carry their details as a dictionary."""
import traceback


def get_py_exception_str(exc_type, exc_value, exc_tb):
    return "".join(traceback.format_exception(exc_type, exc_value, exc_tb))


def get_py_exception_dict(exc_type, exc_value, exc_tb):
    return dict(exc_value.args[0])
