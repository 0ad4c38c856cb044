"""The I lines that a function's inline sites make, from the annotations of its records."""

import bisect


class Range:
    """A node of the tree of code ranges; the children are disjoint and lie inside."""

    def __init__(self, base=0, high=0, entry=None):
        self.base, self.high, self.entry = base, high, entry
        self.children = []

    def store(self, base, size, entry):
        high = base + size - 1
        if size == 0 or high > 0xFFFFFFFF:
            return
        keys = [child.high for child in self.children]
        first, last = bisect.bisect_left(keys, base), bisect.bisect_left(keys, high)
        inside = self.children[first] if first == last and first < len(keys) else None
        if inside and base >= inside.base:
            if (inside.base, inside.high) != (base, high):
                inside.store(base, size, entry)
            return
        reaches = last < len(keys) and high >= self.children[last].base
        cuts_first = first < len(keys) and base > self.children[first].base
        if cuts_first or (reaches and high < self.children[last].high):
            return
        last += reaches
        node = Range(base, high, entry)
        node.children = self.children[first:last]
        self.children[first:last] = [node]


class Entry:
    def __init__(self, offset, length, line, file, depth, name):
        self.offset, self.length = offset, length
        self.rest = (line, file, depth & 0xFFFFFFFF, name)

    def text(self, length):
        line, file, depth, name = self.rest
        return (self.offset, length & 0xFFFFFFFF, line, file, depth, name)


def number(data, at):
    first = data[at]
    if first < 0x80:
        return first, at + 1
    size, mask = (2, 0x3F) if first < 0xC0 else (4, 0x1F)
    rest = data[at:at + size].ljust(size, b"\0")
    return int.from_bytes(bytes([rest[0] & mask]) + rest[1:], "big"), at + size


def signed(value):
    return -(value >> 1) if value & 1 else value >> 1


class Decoder:
    """Decodes the sites of one function; the length of a range lasts from site to site."""

    def __init__(self, function_address):
        self.function_address = function_address
        self.length = 1
        self.tree = Range()

    def site(self, annotations, line, file, depth, name):
        code, at = self.function_address, 0
        while at < len(annotations):
            operation, at = number(annotations, at)
            if operation == 0:
                return
            operand, at = number(annotations, at)
            if operation == 1:
                code = operand
            elif operation == 3:
                code += operand
            elif operation == 4:
                self.length = operand
            elif operation == 6:
                line += signed(operand)
            elif operation == 11:
                code += operand & 15
                line += signed(operand >> 4)
            elif operation == 12:
                self.length = operand
                delta, at = number(annotations, at)
                code += delta
            if operation in (1, 3, 4, 11, 12):
                self.tree.store(code, self.length,
                                Entry(code, self.length, line & 0xFFFFFFFF, file, depth, name))


def printed(node, lines, previous):
    """A range is written when the next one is reached, and again after its children."""
    if node.entry:
        if previous:
            length = previous.length
            if length == 1:
                length = node.entry.offset - previous.offset - 1
            lines.append(previous.text(length))
        previous = node.entry
    for child in node.children:
        previous = printed(child, lines, previous)
    if previous:
        lines.append(previous.text(previous.length))
    return previous


def inline_lines(function_address, sites, names, places):
    """(offset, length, line, file name, depth, name) of each line. `sites` as read from the PDB,
    `names` of those that begin, `places` line and file by inlinee."""
    decoder, depth = Decoder(function_address), 0
    names = iter(names)
    for site in sites:
        if site is None:
            depth -= 1
            continue
        line, file = places.get(site.inlinee, (0, None))
        decoder.site(site.annotations, line, file, depth, next(names))
        depth += 1
    lines = []
    printed(decoder.tree, lines, None)
    return lines
