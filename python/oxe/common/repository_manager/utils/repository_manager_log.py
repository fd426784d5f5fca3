"""Exception formatting for the native library's log and error reports.

``libovra_kb.so`` calls :func:`get_py_exception_dict` with the (type, value,
traceback) of every exception raised by the knowledge base and reports the
returned dictionary to the platform error manager under its "errCode".
Neither function may raise, and the dictionary holds strings only, whatever
it is given.
"""

import traceback

# The codes of errors.py, written out: this module is imported on its own, before the package's others.
GENERIC_ERROR_CODE = "OVRA_KB_E999"
INVALID_ARGUMENT_CODE = "OVRA_KB_E009"


def _clean(text):
    """An exact ``str`` that UTF-8 can encode and C can read to its end."""
    if type(text) is not str:
        text = str.__str__(text)
    try:
        text.encode("utf-8")
    except UnicodeError:
        text = text.encode("utf-8", "backslashreplace").decode("utf-8")
    if "\x00" in text:
        text = text.replace("\x00", "\\x00")
    return text


def _type_name(obj):
    try:
        name = type(obj).__name__
        return name if isinstance(name, str) else "object"
    except BaseException:
        return "object"


def _text(obj):
    """str(obj), falling back to repr(obj) and then to a placeholder; never raises."""
    for convert in (str, repr):
        try:
            text = convert(obj)
            if isinstance(text, str):
                return _clean(text)
        except BaseException:
            pass
    return "<unprintable %s object>" % _clean(_type_name(obj))


def _class_name(exc_type, exc_value):
    try:
        if isinstance(exc_type, type):
            name = exc_type.__name__
        elif isinstance(exc_value, BaseException):
            name = type(exc_value).__name__
        elif exc_type is None:
            return ""
        else:
            name = _text(exc_type)
        return _clean(name) if isinstance(name, str) else ""
    except BaseException:
        return ""


def _payload(exc_value):
    """The details dictionary that an exception carries, if any."""
    if isinstance(exc_value, dict):
        return exc_value
    if isinstance(exc_value, RuntimeError):
        try:
            args = exc_value.args
            if isinstance(args, tuple) and len(args) == 1 and isinstance(args[0], dict):
                return args[0]
        except BaseException:
            pass
    return None


def _keep_only_the_bad_bytes(exc_value, context=16):
    """The library keeps the exception for the life of the process, and a decode error holds the whole text
    it was given, twice: as ``object`` and among its arguments. Only the bad bytes and ``context`` bytes on
    either side stay; its position and message then refer to that part."""
    try:
        whole = exc_value.object
        first, last = max(0, exc_value.start - context), min(len(whole), exc_value.end + context)
        if first > 0 or last < len(whole):
            exc_value.object = whole[first:last]
            exc_value.start -= first
            exc_value.end -= first
            exc_value.args = (exc_value.encoding, exc_value.object, exc_value.start, exc_value.end,
                              exc_value.reason)
    except Exception:
        pass


def _argument_not_utf8(exc_value, exc_tb):
    """A text that the native library could not hand to Python: it fails while it builds the call's
    arguments, before any Python frame runs, so the exception has no traceback of its own."""
    if exc_tb is not None or not isinstance(exc_value, UnicodeDecodeError):
        return None
    start = exc_value.object[:24] if isinstance(exc_value.object, bytes) else b""
    _keep_only_the_bad_bytes(exc_value)
    return {
        "errCode": INVALID_ARGUMENT_CODE,
        "message": "The keyword (or, in a write, the knowledge) is not valid UTF-8 text: %s in the text that "
                   "starts %r; pass keyword and knowledge as UTF-8." % (_text(exc_value.reason), start),
        "argument": "keyword or knowledge",
        "argument_start": _text(repr(start)),
    }


def get_py_exception_str(exc_type=None, exc_value=None, exc_tb=None, *_ignored, **_ignored_kw):
    """The formatted exception, as ``traceback`` prints it; never raises."""
    try:
        if isinstance(exc_value, BaseException) and (exc_type is None or isinstance(exc_type, type)):
            lines = traceback.format_exception(type(exc_value), exc_value, exc_tb)
            return _clean("".join(lines))
    except BaseException:
        pass
    name = _class_name(exc_type, exc_value)
    message = _text(exc_value) if exc_value is not None else ""
    if name and message:
        return "%s: %s\n" % (name, message)
    return (name or message or "unknown error") + "\n"


def _reported_as_it_is(payload):
    """Whether a details dictionary can be reported as it is: exact strings that C can read, and a code."""
    try:
        return bool(payload.get("errCode")) and all(
            type(key) is str and type(value) is str and _clean(key) is key and _clean(value) is value
            for key, value in payload.items())
    except BaseException:
        return False


def _clear_frames(exc_tb):
    try:
        traceback.clear_frames(exc_tb)
    except BaseException:
        pass


def get_py_exception_dict(exc_type=None, exc_value=None, exc_tb=None, *_ignored, **_ignored_kw):
    """Error details as a dictionary of strings that always holds "errCode".

    An exception raised by this package (``RuntimeError`` carrying a details
    dictionary) gives its own entries, code included: the dictionary itself
    when its entries are exact strings.  Anything else is reported under the
    generic code with "error_type" and "message".  The library has logged the
    traceback already and keeps what it is given here, so the dictionary holds
    nothing more, and the traceback's frames are cleared of their variables.
    """
    _clear_frames(exc_tb)
    result = {}
    try:
        payload = _payload(exc_value)
        if payload is None:
            payload = _argument_not_utf8(exc_value, exc_tb)
        if payload is not None and _reported_as_it_is(payload):
            return payload
        if payload is not None:
            for key, value in list(payload.items()):
                result[_text(key)] = _text(value)
        else:
            result["error_type"] = _class_name(exc_type, exc_value) or "unknown"
            result["message"] = _text(exc_value) if exc_value is not None else ""
    except BaseException:
        result.setdefault("message", "the exception could not be described")
    code = result.get("errCode")
    if not code:
        result["errCode"] = GENERIC_ERROR_CODE
    return result
