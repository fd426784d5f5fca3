"""A knowledge-base module that cannot be imported; OVRA_TEST_IMPORT_ERROR picks the exception."""
import os

_kind = os.environ.get("OVRA_TEST_IMPORT_ERROR", "runtime_dict")
if _kind == "runtime_dict":
    raise RuntimeError({"errCode": "E_KB_IMPORT", "reason": "bank offline"})
if _kind == "runtime_text":
    raise RuntimeError("bank offline")
raise ValueError("bad configuration")
