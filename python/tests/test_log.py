"""The log module turns any exception into strings and never raises."""

import sys
import unittest

from oxe.common.repository_manager import errors
from oxe.common.repository_manager.utils import repository_manager_log as log


class Unprintable(Exception):
    def __str__(self):
        raise ValueError("no text")

    __repr__ = __str__


class WeirdMeta(type):
    @property
    def __name__(cls):
        raise RuntimeError("nameless")


class Nameless(Exception, metaclass=WeirdMeta):
    pass


class BadArgs(RuntimeError):
    @property
    def args(self):
        raise RuntimeError("no args")


def raised(exc):
    try:
        raise exc
    except BaseException:
        return sys.exc_info()


PACKAGE_ERROR = raised(errors.kb_error(errors.INVALID_CORE_NUM, "core_num is bad.", core_num="x"))
# What the library's argument building raises for text that is not UTF-8 (it has no traceback).
NOT_UTF8 = (UnicodeDecodeError, UnicodeDecodeError("utf-8", b"k" * (1 << 20) + b"\xc3(" + b"k" * 100, 1 << 20,
                                                   (1 << 20) + 1, "invalid continuation byte"), None)

# (name, arguments, expected errCode, expected entries)
CASES = [
    ("package error", PACKAGE_ERROR, errors.INVALID_CORE_NUM, {"message": "core_num is bad.", "core_num": "x"}),
    ("package error without traceback", PACKAGE_ERROR[:2] + (None,), errors.INVALID_CORE_NUM, {}),
    ("plain error", raised(ValueError("bad")), log.GENERIC_ERROR_CODE, {"error_type": "ValueError", "message": "bad"}),
    ("type only", (KeyError, None, None), log.GENERIC_ERROR_CODE, {"error_type": "KeyError", "message": ""}),
    ("dictionary value", (RuntimeError, {"errCode": "X1", 2: None, "p": b"\xff"}, None), "X1", {"2": "None"}),
    ("dictionary without code", raised(RuntimeError({"message": "m"})), log.GENERIC_ERROR_CODE, {"message": "m"}),
    ("dictionary with empty code", raised(RuntimeError({"errCode": ""})), log.GENERIC_ERROR_CODE, {}),
    ("dictionary with odd values", raised(RuntimeError({"errCode": 5, "k": Unprintable()})), "5", {}),
    ("no arguments", (), log.GENERIC_ERROR_CODE, {}),
    ("value only", (None, ValueError("v"), None), log.GENERIC_ERROR_CODE, {"message": "v"}),
    ("unprintable value", raised(Unprintable()), log.GENERIC_ERROR_CODE, {"error_type": "Unprintable"}),
    ("nameless type", raised(Nameless("n")), log.GENERIC_ERROR_CODE, {}),
    ("args property raises", raised(BadArgs("b")), log.GENERIC_ERROR_CODE, {}),
    ("non-string arguments", (1, 2, 3), log.GENERIC_ERROR_CODE, {"message": "2"}),
    ("string value", (ValueError, "text", None), log.GENERIC_ERROR_CODE, {"message": "text"}),
    ("surrogates and NUL", raised(ValueError("bad \ud800 \x00 end")), log.GENERIC_ERROR_CODE, {}),
    ("too many arguments", (ValueError, ValueError("x"), None, "extra"), log.GENERIC_ERROR_CODE, {"message": "x"}),
    ("text that is not UTF-8", NOT_UTF8, errors.INVALID_ARGUMENT,
     {"argument": "keyword or knowledge", "argument_start": repr(b"k" * 24)}),
    ("a decode error with a traceback", raised(UnicodeDecodeError("utf-8", b"\xff", 0, 1, "bad")),
     log.GENERIC_ERROR_CODE, {"error_type": "UnicodeDecodeError"}),
]


class LogTest(unittest.TestCase):
    def test_any_exception_gives_strings_and_a_code(self):
        for name, args, code, entries in CASES:
            with self.subTest(case=name):
                result = log.get_py_exception_dict(*args)
                self.assertIs(type(result), dict)
                for key, value in result.items():
                    self.assertTrue(type(key) is str and type(value) is str, (key, value))
                    (key + value).encode("utf-8")
                    self.assertNotIn("\x00", key + value)
                self.assertEqual(dict(result, **entries), dict(result, errCode=code))
                text = log.get_py_exception_str(*args)
                self.assertTrue(type(text) is str and text)
        text = log.get_py_exception_str(*PACKAGE_ERROR)
        self.assertTrue(text.startswith("Traceback (most recent call last):"), text)
        self.assertIn("RuntimeError: {'errCode': '%s'" % errors.INVALID_CORE_NUM, text.splitlines()[-1])
        # The library keeps the exception: of a 1 MB text only the bad bytes and 16 on either side stay.
        self.assertIn("invalid continuation byte", log.get_py_exception_dict(*NOT_UTF8)["message"])
        kept = NOT_UTF8[1]
        self.assertEqual((kept.object, kept.start, kept.end), (b"k" * 16 + b"\xc3(" + b"k" * 15, 16, 17))
        self.assertLess(len(repr(kept.args)), 200)

