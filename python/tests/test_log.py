"""The log module turns any exception into strings and never raises."""

import sys
import unittest

from oxe.common.repository_manager import errors, interface
from oxe.common.repository_manager.utils import repository_manager_log as log


class Unprintable(Exception):
    def __str__(self):
        raise ValueError("no text for you")

    def __repr__(self):
        raise ValueError("no repr either")


class WeirdMeta(type):
    @property
    def __name__(cls):
        raise RuntimeError("nameless")


class Nameless(Exception, metaclass=WeirdMeta):
    pass


class BadArgs(Exception):
    @property
    def args(self):
        raise RuntimeError("no args")


class StrSubclass(str):
    pass


def raised(exc):
    try:
        raise exc
    except BaseException:
        return sys.exc_info()


def odd_inputs():
    package_error = raised(errors.kb_error(errors.INVALID_CORE_NUM, "core_num is bad.", core_num="x"))
    return [
        ("no arguments", ()),
        ("three Nones", (None, None, None)),
        ("package error", package_error),
        ("package error without traceback", package_error[:2] + (None,)),
        ("plain error", raised(ValueError("bad value"))),
        ("type only", (KeyError, None, None)),
        ("value only", (None, ValueError("v"), None)),
        ("unprintable value", raised(Unprintable())),
        ("nameless type", raised(Nameless("n"))),
        ("args property raises", raised(BadArgs("b"))),
        ("dictionary value", (RuntimeError, {"errCode": "X1", 2: None, "path": b"\xff"}, None)),
        ("dictionary without code", raised(RuntimeError({"message": "m"}))),
        ("dictionary with empty code", raised(RuntimeError({"errCode": ""}))),
        ("dictionary with odd values", raised(RuntimeError({"errCode": 5, "k": Unprintable()}))),
        ("non-string arguments", (1, 2, 3)),
        ("string value", (ValueError, "text", None)),
        ("tuple value", (ValueError, ("a", 1), None)),
        ("surrogates and NUL", raised(ValueError("bad \ud800 and \x00 end"))),
        ("str subclass message", raised(ValueError(StrSubclass("sub")))),
        ("keyboard interrupt", raised(KeyboardInterrupt())),
        ("system exit", raised(SystemExit(3))),
        ("too many arguments", (ValueError, ValueError("x"), None, "extra", 4)),
        ("unicode", raised(ValueError("\u7b97\u5b50\u5931\u8d25 \U0001F600"))),
    ]


def strings_only(test, result):
    test.assertIs(type(result), dict)
    for key, value in result.items():
        test.assertIs(type(key), str, key)
        test.assertIs(type(value), str, value)
        key.encode("utf-8")
        value.encode("utf-8")
        test.assertNotIn("\x00", key + value)


class ExceptionDictTest(unittest.TestCase):
    def test_odd_exceptions_give_strings_and_a_code(self):
        for name, args in odd_inputs():
            with self.subTest(case=name):
                result = log.get_py_exception_dict(*args)
                strings_only(self, result)
                self.assertTrue(result["errCode"])

    def test_package_error_keeps_its_code_and_entries(self):
        result = log.get_py_exception_dict(*raised(
            errors.kb_error(errors.INVALID_CORE_NUM, "core_num is bad.", core_num="x")))
        self.assertEqual(result["errCode"], errors.INVALID_CORE_NUM)
        self.assertEqual(result["message"], "core_num is bad.")
        self.assertEqual(result["core_num"], "x")

    def test_codes_of_foreign_exceptions(self):
        cases = [
            (raised(ValueError("bad value")), log.GENERIC_ERROR_CODE, "ValueError", "bad value"),
            ((KeyError, None, None), log.GENERIC_ERROR_CODE, "KeyError", ""),
            (raised(RuntimeError("plain")), log.GENERIC_ERROR_CODE, "RuntimeError", "plain"),
            (raised(RuntimeError({"message": "m"})), log.GENERIC_ERROR_CODE, None, "m"),
            ((None, {"errCode": "X1"}, None), "X1", None, None),
        ]
        for args, code, error_type, message in cases:
            with self.subTest(args=args[:2]):
                result = log.get_py_exception_dict(*args)
                self.assertEqual(result["errCode"], code)
                if error_type is not None:
                    self.assertEqual(result["error_type"], error_type)
                if message is not None:
                    self.assertEqual(result["message"], message)

    def test_errors_raised_by_the_interface(self):
        interface.ovra_kb_finalize()
        calls = [
            (lambda: interface.ovra_kb_init({"soc_version": "", "core_num": "1"}, {"op_bank_path": "x"}),
             errors.INVALID_SOC_VERSION),
            (lambda: interface.ovra_kb_write("k", "v", {"op_type": "Add"}, 0), errors.NOT_INITIALISED),
            (lambda: interface.ovra_kb_search_get("nothing"), errors.UNKNOWN_TASK),
        ]
        for call, code in calls:
            with self.subTest(code=code):
                try:
                    call()
                except RuntimeError:
                    result = log.get_py_exception_dict(*sys.exc_info())
                else:
                    self.fail("no error raised")
                strings_only(self, result)
                self.assertEqual(result["errCode"], code)
                self.assertIn("RuntimeError", result["traceback"])


class ExceptionStrTest(unittest.TestCase):
    def test_formats_like_traceback(self):
        text = log.get_py_exception_str(*raised(ValueError("bad value")))
        self.assertTrue(text.startswith("Traceback (most recent call last):"), text)
        self.assertTrue(text.endswith("ValueError: bad value\n"), text)

    def test_odd_exceptions_give_text(self):
        for name, args in odd_inputs():
            with self.subTest(case=name):
                text = log.get_py_exception_str(*args)
                self.assertIs(type(text), str)
                self.assertTrue(text)
                text.encode("utf-8")
