"""Seeded mutants of the converter's inputs: PDBs, images, text symbol files and SYMB files.
Positions are chosen by the structure of the format, because no conversion reads most bytes of a
PDB."""

import struct

EDGES = (0, 1, 2, 3, 4, 7, 8, 0x7F, 0x80, 0xFF, 0x100, 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0xFFFFFF,
         0x7FFFFFFF, 0x80000000, 0xFFFFFFFC, 0xFFFFFFFE, 0xFFFFFFFF)
NIL_SIZE = 0xFFFFFFFF
MSF_SIGNATURE = b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"


def u16(data, offset):
    return struct.unpack_from("<H", data, offset)[0]


def u32(data, offset):
    return struct.unpack_from("<I", data, offset)[0]


def edge_value(rng, old, bits):
    """An edge of the number's range, or a value close to the one that is there."""
    if rng.random() < 0.5:
        value = rng.choice(EDGES)
    else:
        value = old + rng.choice((-8, -4, -2, -1, 1, 2, 4, 8, old))
    return value & ((1 << bits) - 1)


def mutate_number(rng, data, offset, bits=32):
    """Changes the number at `offset`; says what it did."""
    if offset < 0 or offset + bits // 8 > len(data):
        return f"nothing at {offset:#x}"
    old = int.from_bytes(data[offset:offset + bits // 8], "little")
    new = edge_value(rng, old, bits)
    data[offset:offset + bits // 8] = new.to_bytes(bits // 8, "little")
    return f"{offset:#x}: {old:#x} -> {new:#x}"


def mutate_place(rng, data, begin, end):
    """Changes a bit, a byte or a number somewhere in [begin, end)."""
    end = min(end, len(data))
    if begin >= end:
        return "nothing"
    offset = rng.randrange(begin, end)
    kind = rng.random()
    if kind < 0.25:
        data[offset] ^= 1 << rng.randrange(8)
        return f"{offset:#x}: a bit"
    if kind < 0.45:
        data[offset] = rng.randrange(256)
        return f"{offset:#x}: a byte"
    bits = 16 if kind < 0.65 else 32
    step = bits // 8
    return mutate_number(rng, data, begin + (offset - begin) // step * step, bits)


def cut(rng, data):
    length = rng.randrange(len(data))
    del data[length:]
    return f"cut to {length} bytes"


class Msf:
    """The container of a PDB: the stream directory and the streams' pages."""

    def __init__(self, data):
        self.page_size, directory_size = u32(data, 32), u32(data, 44)
        count = -(-directory_size // self.page_size)
        list_page = u32(data, 52) * self.page_size
        self.directory_pages = [u32(data, list_page + 4 * i) for i in range(count)]
        directory = self.read(data, self.directory_pages, directory_size)
        self.directory_size = directory_size
        self.sizes = [u32(directory, 4 + 4 * i) for i in range(u32(directory, 0))]
        self.pages, position = [], 4 + 4 * len(self.sizes)
        for size in self.sizes:
            count = 0 if size == NIL_SIZE else -(-size // self.page_size)
            self.pages.append([u32(directory, position + 4 * i) for i in range(count)])
            position += 4 * count

    def read(self, data, pages, size):
        joined = b"".join(data[p * self.page_size:(p + 1) * self.page_size] for p in pages)
        return joined[:size]

    def stream(self, data, number):
        if self.sizes[number] == NIL_SIZE:
            return None
        return self.read(data, self.pages[number], self.sizes[number])

    def place(self, pages, offset):
        """Where byte `offset` of what these pages hold is in the file."""
        return pages[offset // self.page_size] * self.page_size + offset % self.page_size

    def stream_place(self, number, offset):
        return self.place(self.pages[number], offset)


def write_msf(rng, streams, page_size):
    """The streams in a new container, their pages in a random order."""
    sizes = [NIL_SIZE if s is None else len(s) for s in streams]
    counts = [-(-len(s or b"") // page_size) for s in streams]
    directory_size = 4 + 4 * len(streams) + 4 * sum(counts)
    directory_count = -(-directory_size // page_size)
    if 4 * directory_count > page_size:
        return None
    free, page = [], 3
    while len(free) < sum(counts) + directory_count + 1:
        if page % page_size not in (1, 2):  # the maps of free pages
            free.append(page)
        page += 1
    total = free[-1] + 1
    rng.shuffle(free)
    data = bytearray(total * page_size)

    def put(content):
        pages = [free.pop() for _ in range(-(-len(content) // page_size))]
        for i, number in enumerate(pages):
            part = content[i * page_size:(i + 1) * page_size]
            data[number * page_size:number * page_size + len(part)] = part
        return struct.pack(f"<{len(pages)}I", *pages)

    lists = b"".join(put(s or b"") for s in streams)
    directory = struct.pack(f"<{len(sizes) + 1}I", len(sizes), *sizes) + lists
    (list_page,) = struct.unpack("<I", put(put(directory)))
    struct.pack_into("<32s6I", data, 0, MSF_SIGNATURE, page_size, 1, total, directory_size, 0,
                     list_page)
    return bytes(data)


class Pdb:
    """What the mutations have to know of a PDB: its modules' streams and the debug header."""

    def __init__(self, data):
        self.data = data
        self.msf = Msf(data)
        self.dbi = self.msf.stream(data, 3)
        self.module_size = u32(self.dbi, 24)
        self.modules = list(self.read_modules())
        self.debug_header = 64 + sum(u32(self.dbi, at) for at in (24, 28, 32, 36, 40, 52))

    def read_modules(self):
        offset = 64
        while offset + 64 < 64 + self.module_size:
            stream, symbols = u16(self.dbi, offset + 34), u32(self.dbi, offset + 36)
            if stream < len(self.msf.sizes):
                yield stream, symbols
            names = self.dbi.index(b"\0", self.dbi.index(b"\0", offset + 64) + 1) + 1
            offset = -(-names // 4) * 4

    def symbol_records(self, stream, symbols):
        """Offsets of the symbol records of a module's stream."""
        content, offset, found = self.msf.stream(self.data, stream), 4, []
        while offset + 4 <= min(symbols, len(content)):
            found.append(offset)
            offset += 2 + u16(content, offset)
        return found

    def subsections(self, stream, symbols):
        """Offsets of the C13 subsections of a module's stream."""
        content, offset, found = self.msf.stream(self.data, stream), symbols, []
        while offset + 8 <= len(content):
            found.append(offset)
            offset += 8 + u32(content, offset + 4)
        return found


def mutate_in_stream(rng, pdb, data, number):
    size = pdb.msf.sizes[number]
    if size in (0, NIL_SIZE):
        return "nothing"
    offset = rng.randrange(size)
    page = pdb.msf.stream_place(number, offset // pdb.msf.page_size * pdb.msf.page_size)
    begin = page + (offset % pdb.msf.page_size) // 8 * 8
    return f"stream {number}, " + mutate_place(rng, data, begin, begin + 8)


def mutate_directory(rng, pdb, data):
    count = len(pdb.msf.sizes)
    index = rng.randrange(1 + 2 * count if rng.random() < 0.7 else pdb.msf.directory_size // 4)
    place = pdb.msf.place(pdb.msf.directory_pages, min(4 * index, pdb.msf.directory_size - 4))
    return "directory, " + mutate_number(rng, data, place)


def mutate_dbi(rng, pdb, data):
    kind = rng.random()
    if kind < 0.35:
        place, bits = pdb.msf.stream_place(3, rng.randrange(0, 64, 2)), rng.choice((16, 32))
        return "DBI header, " + mutate_number(rng, data, place, bits)
    if kind < 0.6 and pdb.debug_header + 22 <= len(pdb.dbi):
        place = pdb.msf.stream_place(3, pdb.debug_header + 2 * rng.randrange(11))
        number = rng.randrange(len(pdb.msf.sizes))
        struct.pack_into("<H", data, place, number)
        return f"debug header, {place:#x}: stream {number}"
    offset = 64 + rng.randrange(0, max(pdb.module_size, 4), 2)
    return "module record, " + mutate_number(rng, data, pdb.msf.stream_place(3, offset),
                                             rng.choice((16, 32)))


def mutate_module(rng, pdb, data):
    if not pdb.modules:
        return "nothing"
    stream, symbols = rng.choice(pdb.modules)
    kind = rng.random()
    if kind < 0.45:
        records = pdb.symbol_records(stream, symbols)
        if records:
            offset = rng.choice(records) + rng.choice((0, 2, 4, 8, 12, 16, 20, 24, 28, 32, 36))
            offset = min(offset, pdb.msf.sizes[stream] - 1)
            return f"symbol record in stream {stream}, " + mutate_number(
                rng, data, pdb.msf.stream_place(stream, offset), rng.choice((16, 16, 32)))
    elif kind < 0.85:
        places = pdb.subsections(stream, symbols)
        if places:
            offset = rng.choice(places) + rng.choice((0, 4)) + 4 * rng.choice((0, 0, 1, 2, 3, 5, 9))
            offset = min(offset, pdb.msf.sizes[stream] - 1)
            return f"subsection in stream {stream}, " + mutate_number(
                rng, data, pdb.msf.stream_place(stream, offset), rng.choice((16, 32)))
    return "module, " + mutate_in_stream(rng, pdb, data, stream)


def swap_pages(rng, pdb, data):
    size = pdb.msf.page_size
    first, second = (size * rng.randrange(len(pdb.data) // size) for _ in range(2))
    if max(first, second) + size <= len(data):
        data[first:first + size], data[second:second + size] = (data[second:second + size],
                                                                data[first:first + size])
    return f"pages {first // size} and {second // size} swapped"


def mutate_pdb(rng, pdb):
    """One to three mutations of a PDB; most change one number."""
    data, said = bytearray(pdb.data), []
    for _ in range(rng.choice((1, 1, 1, 2, 3))):
        kind = rng.random()
        if kind < 0.12:
            said.append(mutate_directory(rng, pdb, data))
        elif kind < 0.17:
            said.append("header, " + mutate_place(rng, data, 0, 56))
        elif kind < 0.37:
            said.append(mutate_dbi(rng, pdb, data))
        elif kind < 0.72:
            said.append(mutate_module(rng, pdb, data))
        elif kind < 0.94:
            said.append(mutate_in_stream(rng, pdb, data, rng.randrange(1, len(pdb.msf.sizes))))
        elif kind < 0.97:
            said.append(swap_pages(rng, pdb, data))
        else:
            said.append(cut(rng, data))
            break
    return bytes(data), "; ".join(said)


def frame_data(rng, new_form):
    records = []
    for _ in range(rng.randrange(1, 12)):
        start, size = rng.randrange(0x1000, 0x1600), rng.randrange(1, 0x80)
        if new_form:
            records.append(struct.pack("<6I2HI", start, size, rng.randrange(64), rng.randrange(32),
                                       0, rng.randrange(64), rng.randrange(8), rng.randrange(12),
                                       rng.randrange(8)))
        else:
            records.append(struct.pack("<3IHBB", start, size, rng.randrange(16), rng.randrange(8),
                                       rng.randrange(8), rng.randrange(256)))
    return b"".join(records)


def omap(rng):
    entries, first = [], 0
    for _ in range(rng.randrange(2, 12)):
        second = 0 if rng.random() < 0.2 else rng.randrange(0x1000, 0x1800)
        entries.append(struct.pack("<2I", first, second))
        first += rng.randrange(1, 0x300)
    if rng.random() < 0.3:
        rng.shuffle(entries)
    return b"".join(entries)


def rebuild_pdb(rng, pdb):
    """The PDB in another container: other page size, pages in another order; sometimes with frame
    data or address maps, which the fixtures' linker does not write."""
    streams = [pdb.msf.stream(pdb.data, i) for i in range(len(pdb.msf.sizes))]
    added = []
    if rng.random() < 0.7 and pdb.debug_header + 22 <= len(pdb.dbi):
        dbi = bytearray(streams[3])
        for index, name, content in ((0, "FPO", frame_data(rng, False)),
                                     (9, "new FPO", frame_data(rng, True)),
                                     (3, "OMAP to", omap(rng)), (4, "OMAP from", omap(rng))):
            if rng.random() < 0.5:
                struct.pack_into("<H", dbi, pdb.debug_header + 2 * index, len(streams))
                streams.append(content)
                added.append(name)
        if "OMAP to" in added or "OMAP from" in added:
            section_headers = u16(dbi, pdb.debug_header + 10)
            struct.pack_into("<H", dbi, pdb.debug_header + 20, section_headers)
        streams[3] = bytes(dbi)
    page_size = rng.choice((512, 1024, 2048, 4096, 8192))
    said = f"rebuilt with pages of {page_size} bytes" + "".join(f", {name}" for name in added)
    return write_msf(rng, streams, page_size) or pdb.data, said


class Image:
    """Where the headers, the exception directory and the unwind data of a PE are."""

    def __init__(self, data):
        self.data = data
        header = u32(data, 0x3C)
        optional = header + 24
        directories = optional + (112 if u16(data, optional) == 0x20B else 96)
        table = optional + u16(data, header + 20)
        self.sections = [struct.unpack_from("<4I", data, table + 40 * i + 8)
                         for i in range(u16(data, header + 6))]
        self.headers = (0, table + 40 * len(self.sections))
        self.nt_headers = (header, self.headers[1])
        self.exceptions = self.directory(directories + 8 * 3)
        self.debug = self.directory(directories + 8 * 6)
        self.unwind = []
        if self.exceptions and u16(data, optional) == 0x20B:
            for place in range(self.exceptions[0], self.exceptions[1] - 11, 12):
                info = self.place(u32(data, place + 8))
                if info is not None:
                    self.unwind.append(info)

    def place(self, rva):
        for size, address, raw_size, raw in self.sections:
            if address <= rva < address + min(size, raw_size):
                return raw + rva - address
        return None

    def directory(self, entry):
        begin, size = self.place(u32(self.data, entry)), u32(self.data, entry + 4)
        return None if begin is None or size == 0 else (begin, begin + size)


def mutate_unwind(rng, image, data):
    """Changes one field of unwind data, most often to a value that it can have."""
    info = rng.choice(image.unwind)
    codes = data[info + 2]
    kind = rng.random()
    if kind < 0.15:
        data[info] = rng.choice((1, 1, 2, 3)) | rng.choice((0, 1, 2, 3, 4)) << 3
        return f"unwind data at {info:#x}: version and flags {data[info]:#x}"
    if kind < 0.3:
        data[info + 2] = max(0, codes + rng.choice((-2, -1, 1, 2, 200))) & 0xFF
        return f"unwind data at {info:#x}: {data[info + 2]} codes"
    if kind < 0.4:
        data[info + 3] = rng.randrange(256)
        return f"unwind data at {info:#x}: frame register {data[info + 3]:#x}"
    if kind < 0.85 and codes:
        code = info + 4 + 2 * rng.randrange(codes)
        data[code + 1] = rng.randrange(11) | rng.randrange(16) << 4
        return f"unwind code at {code:#x}: {data[code + 1]:#x}"
    return "unwind data, " + mutate_place(rng, data, info, info + 16 + 2 * codes)


def mutate_image(rng, image):
    data, said = bytearray(image.data), []
    for _ in range(rng.choice((1, 1, 1, 2, 3))):
        kind = rng.random()
        if kind < 0.04:
            said.append(cut(rng, data))
            break
        if kind < 0.6 and image.unwind:
            said.append(mutate_unwind(rng, image, data))
            continue
        name, area = "anywhere", (0, len(image.data))
        if kind < 0.75 and image.exceptions:
            name, area = "exception directory", image.exceptions
        elif kind < 0.93:
            name, area = "headers", image.nt_headers if rng.random() < 0.9 else image.headers
        elif kind < 0.98 and image.debug:
            name, area = "debug directory", image.debug
        said.append(f"{name}, " + mutate_place(rng, data, *area))
    return bytes(data), "; ".join(said)


NUMBERS = (b"0", b"1", b"7fffffff", b"80000000", b"ffffffff", b"100000000", b"ffffffffffffffff",
           b"-1", b"2147483648", b"x", b"", b"m")


def mutate_words(rng, line):
    words = line.split(b" ")
    index = rng.randrange(len(words))
    if rng.random() < 0.6:
        words[index] = rng.choice(NUMBERS)
    else:
        other = rng.randrange(len(words))
        words[index], words[other] = words[other], words[index]
    return b" ".join(words)


def mutate_line(rng, lines, at):
    """Changes the line with the number `at`; says how."""
    kind = rng.randrange(7)
    line = lines[at]
    if kind == 0:
        lines.insert(rng.randrange(len(lines) + 1), line)
        return "copied"
    if kind == 1:
        del lines[at:at + rng.choice((1, 1, 1, 2, 5))]
        return "left out"
    if kind == 2:
        other = rng.randrange(len(lines))
        lines[at], lines[other] = lines[other], lines[at]
        return f"swapped with {other}"
    if kind == 3:
        lines[at] = line[:rng.randrange(len(line) + 1)]
        return "cut"
    if kind == 4:
        place = rng.randrange(len(line) + 1)
        byte = rng.choice((b"\0", b"\r", b" ", b"\t", b"\xff", b"\xc3", b"\n", b"z"))
        lines[at] = line[:place] + byte + line[place:]
        return f"has {byte!r} at {place}"
    lines[at] = mutate_words(rng, line)
    return "has other words"


def mutate_text(rng, data):
    lines, said = data.split(b"\n"), []
    for _ in range(rng.choice((1, 1, 2, 3, 8))):
        if not lines:
            lines = [b""]
        first = rng.random() < 0.15
        at = rng.randrange(min(3, len(lines)) if first else len(lines))
        said.append(f"line {at} " + mutate_line(rng, lines, at))
    result = bytearray(b"\n".join(lines))
    if rng.random() < 0.05 and result:
        said.append(cut(rng, result))
    return bytes(result), "; ".join(said)


def mutate_symb(rng, data):
    result, said = bytearray(data), []
    for _ in range(rng.choice((1, 1, 1, 2, 3))):
        kind = rng.random()
        if kind < 0.06:
            said.append(cut(rng, result))
            break
        if kind < 0.12:
            result[4:8] = struct.pack("<I", rng.randrange(5))
            said.append("another version")
        elif kind < 0.35:
            said.append("header, " + mutate_place(rng, result, 8, 184))
        elif kind < 0.45:
            fields = [8 + 8 * rng.randrange(22) for _ in range(2)]
            result[fields[0]:fields[0] + 8] = result[fields[1]:fields[1] + 8]
            said.append(f"header, {fields[0]:#x} as {fields[1]:#x}")
        else:
            said.append("records, " + mutate_place(rng, result, 184, len(result)))
    return bytes(result), "; ".join(said)
