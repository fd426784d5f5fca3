"""Log module of the benchmark knowledge base: the two functions the library asks for."""

import traceback


def get_py_exception_str(exc_type, exc_value, exc_tb):
    return "".join(traceback.format_exception(exc_type, exc_value, exc_tb))


def get_py_exception_dict(exc_type, exc_value, exc_tb):
    return {"errCode": "EC_BENCH", "message": str(exc_value)}
