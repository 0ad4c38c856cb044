#!/usr/bin/env python3
"""resolve.py SYMBOL_FILE: a complete host of libsymforge.so.1 in Python, by ctypes alone.

SYMBOL_FILE is a text symbol file or a SYMB file. Standard input has one hexadecimal address per line,
relative to the image. For each, one line with a JSON object is written to standard output. Its members
are those that examples/resolve_addresses.cc describes.

The library is found in the usual folders, or by its path in the environment variable SYMFORGE_LIBRARY.
"""

import ctypes
import json
import os
import sys
from ctypes import (POINTER, Structure, byref, c_char_p, c_int32, c_size_t, c_uint32, c_uint64,
                    c_void_p, create_string_buffer, sizeof)

OK, NOT_FOUND, TOO_SMALL = 0, 2, 5
FOUND_NOTHING = 0
PORTION = 1024


class Frame(Structure):
    _fields_ = [("size", c_uint32), ("line", c_uint32), ("function", c_char_p), ("file", c_char_p)]


class Answer(Structure):
    _fields_ = [("size", c_uint32), ("found", c_uint32), ("frame_count", c_uint32),
                ("reserved", c_uint32), ("first_frame", c_uint64), ("function_start", c_uint64),
                ("line_start", c_uint64), ("function", c_char_p)]


class FrameData(Structure):
    _fields_ = [("size", c_uint32), ("type", c_int32), ("prolog_size", c_uint32),
                ("epilog_size", c_uint32), ("parameter_size", c_uint32),
                ("saved_register_size", c_uint32), ("local_size", c_uint32),
                ("max_stack_size", c_uint32), ("allocates_base_pointer", c_uint32),
                ("reserved", c_uint32), ("text_size", c_uint64)]


class FrameRules(Structure):
    _fields_ = [("size", c_uint32), ("rule_count", c_uint32), ("text_size", c_uint64)]


def load_library():
    library = ctypes.CDLL(os.environ.get("SYMFORGE_LIBRARY", "libsymforge.so.1"))
    library.symforge_last_error.restype = c_char_p
    library.symforge_module_open.argtypes = [c_char_p, POINTER(c_void_p)]
    library.symforge_module_close.argtypes = [c_void_p]
    library.symforge_module_close.restype = None
    library.symforge_resolve_array.argtypes = [
        c_void_p, POINTER(c_uint64), c_size_t, POINTER(Answer), POINTER(Frame), c_size_t,
        POINTER(c_size_t)]
    for lookup, structure in ((library.symforge_find_frame_data, FrameData),
                              (library.symforge_find_frame_rules, FrameRules)):
        lookup.argtypes = [c_void_p, c_uint64, POINTER(structure), c_char_p, c_size_t]
    return library


def text_of(string):
    """A string of a symbol file, which may not be UTF-8."""
    return string.decode("utf-8", "replace") if string else ""


class Module:
    """The symbols of one module. Use it in a with statement."""

    def __init__(self, path):
        self._library = load_library()
        self._handle = c_void_p()
        self._answers = (Answer * PORTION)()
        self._frames = (Frame * (2 * PORTION))()
        self._text = create_string_buffer(4096)
        self._check(self._library.symforge_module_open(os.fsencode(path), byref(self._handle)))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._library.symforge_module_close(self._handle)

    def _check(self, status):
        if status != OK:
            raise RuntimeError(text_of(self._library.symforge_last_error()))

    def resolve(self, addresses):
        """For each address yields (answer, frames), valid until the next one; innermost frame first."""
        for start in range(0, len(addresses), PORTION):
            yield from self._resolve_portion(addresses[start:start + PORTION])

    def _resolve_portion(self, addresses):
        while addresses:
            self._answers[0].size = sizeof(Answer)
            self._frames[0].size = sizeof(Frame)
            answered = c_size_t()
            status = self._library.symforge_resolve_array(
                self._handle, (c_uint64 * len(addresses))(*addresses), len(addresses),
                self._answers, self._frames, len(self._frames), byref(answered))
            if status != TOO_SMALL:
                self._check(status)
            needed = self._answers[answered.value].frame_count if status == TOO_SMALL else 0
            for answer in self._answers[:answered.value]:
                first = answer.first_frame
                yield answer, self._frames[first:first + answer.frame_count]
            if needed > len(self._frames):
                self._frames = (Frame * needed)()
            addresses = addresses[answered.value:]

    def _find(self, lookup, address, result):
        """Returns the text of an unwind lookup; None if nothing is known."""
        result.size = sizeof(result)
        status = lookup(self._handle, address, byref(result), self._text, len(self._text))
        if status == TOO_SMALL:
            self._text = create_string_buffer(result.text_size)
            status = lookup(self._handle, address, byref(result), self._text, len(self._text))
        if status == NOT_FOUND:
            return None
        self._check(status)
        return self._text.raw[:result.text_size]

    def frame_data(self, address):
        data = FrameData()
        program = self._find(self._library.symforge_find_frame_data, address, data)
        if program is None:
            return None
        return {"type": data.type, "valid": 1 if data.type == -1 else -1,
                "prolog_size": data.prolog_size, "epilog_size": data.epilog_size,
                "parameter_size": data.parameter_size,
                "saved_register_size": data.saved_register_size, "local_size": data.local_size,
                "max_stack_size": data.max_stack_size,
                "allocates_base_pointer": bool(data.allocates_base_pointer),
                "program_string": text_of(program[:-1])}

    def frame_rules(self, address):
        text = self._find(self._library.symforge_find_frame_rules, address, FrameRules())
        if text is None:
            return None
        parts = [text_of(part) for part in text.split(b"\0")[:-1]]
        rules = dict(zip(parts[::2], parts[1::2]))
        return {"cfa_rule": rules.pop(".cfa", ""), "ra_rule": rules.pop(".ra", ""),
                "register_rules": rules}


def json_of(module, address, answer, frames):
    found = answer.found != FOUND_NOTHING
    function = frames[-1] if found else Frame()
    return {
        "address": address,
        "function_name": text_of(answer.function),
        "function_base": answer.function_start,
        "source_file_name": text_of(function.file),
        "source_line": function.line,
        "source_line_base": answer.line_start,
        "inlines": [{"name": text_of(call.function), "source_file_name": text_of(call.file),
                     "source_line": call.line} for call in frames[:-1]],
        "windows_frame_info": module.frame_data(address),
        "cfi": module.frame_rules(address),
    }


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    addresses = [int(line, 16) for line in sys.stdin if line.strip()]
    try:
        with Module(sys.argv[1]) as module:
            for address, (answer, frames) in zip(addresses, module.resolve(addresses)):
                print(json.dumps(json_of(module, address, answer, frames), ensure_ascii=False))
    except RuntimeError as error:
        sys.exit(str(error))


if __name__ == "__main__":
    main()
