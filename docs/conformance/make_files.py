#!/usr/bin/env python3
"""Makes the conformance files of this folder, each with its contents as JSON.

Usage: make_files.py FOLDER

Written from ../format.md alone: nothing here knows the library. The JSON is what the file was made
of, not what was read back from it. README.md says what its fields mean.
"""
import json
import struct
import sys
from pathlib import Path

DIRECTORY_END = 22 + 32 * 144
START = 1700000000  # seconds; each step is a minute later
DAMAGED = None  # a payload that a reader cannot know


def identifier(number):
    identity = number.to_bytes(8, "big")
    return identity + sum(identity).to_bytes(2, "big")


def shown(number):
    return f"0x{number:016x}"


def text(data):
    return data.decode("latin-1")


class Block:
    def __init__(self, table, capacity, data):
        self.table, self.capacity, self.data = table, capacity, data
        self.position = 0
        self.length = len(data)
        self.tail = b""  # what lies between the data and the end mark; zeros when it is shorter

    def body(self):
        spare = self.capacity - len(self.data)
        return self.data + self.tail.ljust(spare, b"\0")[:spare] + b"i"


class Record(Block):
    def __init__(self, table, number, data, time, reserve=0):
        super().__init__(table, max(len(data), reserve), data)
        self.number, self.created, self.modified = number, time, time
        self.prev = self.next = 0

    def encode(self):
        return (b"\x87" + struct.pack(">H", 64) + identifier(self.table) + identifier(self.number) +
                struct.pack(">IIqqII", self.created, self.modified, self.prev, self.next, self.length,
                            self.capacity) + self.body())

    def entry(self):
        payload = DAMAGED if self.length > self.capacity else text(self.data)
        return {"id": shown(self.number), "position": self.position, "created": self.created,
                "modified": self.modified, "capacity": self.capacity, "payload": payload}


class Data(Block):
    def __init__(self, table, data, reserve=0):
        super().__init__(table, max(len(data), reserve), data)

    def encode(self):
        return (b"\x96" + struct.pack(">H", 32) + identifier(self.table) +
                struct.pack(">II", self.length, self.capacity) + self.body())


class Slot:
    def __init__(self, name=b"", number=0, marks=(0, 0)):
        self.name, self.number, self.marks = name, number, marks
        self.version = 100 if number else 0
        self.flags = (0, 0)
        self.filler = 0xCC
        self.count = self.writes = 0
        self.first = self.lastWritten = self.last = 0
        self.dataCount = self.dataWrites = 0
        self.data = [0, 0, 0]

    def encode(self):
        image = bytearray([self.filler]) * 144
        image[0], image[136] = self.marks
        struct.pack_into("<HH", image, 2, 50, self.version)
        image[6:16] = identifier(self.number)
        image[16:48] = self.name.ljust(32, b"\0")[:32]
        struct.pack_into("<HH", image, 48, *self.flags)
        struct.pack_into("<HxxII", image, 56, 40, self.count, self.writes)
        struct.pack_into("<qqq", image, 72, self.first, self.lastWritten, self.last)
        struct.pack_into("<HxxII", image, 96, 40, self.dataCount, self.dataWrites)
        struct.pack_into("<qqq", image, 112, *self.data)
        for begin, end in ((58, 60), (98, 100)):  # filler that pack_into has set to zero
            image[begin:end] = bytes([self.filler]) * (end - begin)
        return bytes(image)


class Database:
    def __init__(self, number, signature=b"QVdb", version=100):
        self.number, self.signature, self.version = number, signature, version
        self.slots, self.pieces = [], []
        self.end = DIRECTORY_END
        self.time = START
        self.tableCount = None

    def later(self):
        self.time += 60
        return self.time

    def table(self, name, number):
        slot = Slot(name, number, (151, 121))
        self.slots.append(slot)
        return slot

    def place(self, block):
        block.position = self.end
        self.pieces.append(block)
        self.end += len(block.encode())
        return block

    def raw(self, data):
        self.pieces.append(data)
        self.end += len(data)

    # The operations of format.md, in the order of their writes.

    def add(self, slot, number, data, reserve=0):
        record = self.place(Record(slot.number, number, data, self.time, reserve))
        record.prev = slot.last
        if slot.count:
            self.at(slot.last).next = record.position
        else:
            slot.first = record.position
        slot.lastWritten = slot.last = record.position
        slot.count += 1
        slot.writes += 1
        return record

    def setData(self, slot, data, reserve=0):
        block = self.place(Data(slot.number, data, reserve))
        slot.dataCount, slot.dataWrites = 1, slot.dataWrites + 1
        slot.data = [block.position] * 3
        return block

    def overwrite(self, record, data):
        """A payload that fits; the rest of the old one stays where it is."""
        before = record.data + record.tail
        record.modified = self.time
        record.data, record.length, record.tail = data, len(data), before[len(data):]

    def overwriteData(self, block, data):
        before = block.body()
        block.data, block.length, block.tail = data, len(data), b"i" + before[len(data) + 1:-1]

    def newPlace(self, record, data):
        """The first step of a move: the new block, with the links of the old one."""
        moved = Record(record.table, record.number, data, self.time)
        moved.created = record.created
        moved.prev, moved.next = record.prev, record.next
        return self.place(moved)

    def at(self, position):
        return next(p for p in self.pieces if isinstance(p, Block) and p.position == position)

    def encode(self):
        count = len(self.slots) if self.tableCount is None else self.tableCount
        slots = self.slots + [Slot() for _ in range(32 - len(self.slots))]
        parts = [self.signature, struct.pack(">H", self.version), identifier(self.number),
                 struct.pack(">hHH", count, 32, 144)]
        parts += [slot.encode() for slot in slots]
        parts += [p if isinstance(p, bytes) else p.encode() for p in self.pieces]
        return b"".join(parts)

    def describe(self, about, tables, check=(), unreached=()):
        return {
            "about": about,
            "size": len(self.encode()),
            "signature": text(self.signature),
            "version": self.version,
            "id": shown(self.number),
            "tables": list(tables),
            "unreached": [
                {"position": block.position,
                 "kind": "record" if isinstance(block, Record) else "table data", "class": kind}
                for block, kind in unreached],
            "check": sorted(check),
        }


def entry(slot, records=(), data=None, complete=True):
    """One table as a reader finds it; `data` is its block."""
    return {"name": text(slot.name), "id": shown(slot.number),
            "data": None if data is None else text(data.data),
            "data_position": 0 if data is None else data.position, "complete": complete,
            "records": [record.entry() for record in records]}


def empty():
    db = Database(0x2B5E_91C4_6554_0A01)
    return db, db.describe("A new database: a header and 32 free slots.", [])


def notes():
    db = Database(0x3A9C_07E1_6554_1C88)
    slot = db.table(b"notes", 0xD241_8B10_6554_8A13)
    hello = db.add(slot, 0x075E_F3A9_6554_F0C4, b"hello", reserve=8)
    db.later()
    bye = db.add(slot, 0x9126_4D72_6556_3B59, b"bye")
    data = db.setData(slot, b"v1")
    return db, db.describe("The first example of format-examples.md: one table with two records and "
                           "table data.", [entry(slot, [hello, bye], data)])


def changes():
    db = Database(0x51F0_22B7_6554_30D5)
    slot = db.table(b"tasks", 0x6A03_D918_6554_31EF)
    plants = db.add(slot, 0x1C84_70FE_6554_4002, b"water the plants")
    db.later()
    bread = db.add(slot, 0xE02B_9537_6554_4A61, b"buy bread")
    db.later()
    call = db.add(slot, 0x48D6_0B9C_6554_5533, b"call")
    db.later()
    rent = db.add(slot, 0xB97A_1E40_6554_60D8, b"pay rent")
    # Deleted: the neighbours' links, then the slot.
    plants.next, call.prev = call.position, plants.position
    slot.count, slot.lastWritten = 3, call.position
    # Shortened, in place.
    db.later()
    db.overwrite(plants, b"water")
    # Moved: the new block, then the neighbours' links.
    db.later()
    moved = db.newPlace(call, b"call the bank")
    plants.next = rent.prev = moved.position
    # Torn: an append that was cut off after 40 bytes of its header.
    db.later()
    torn = Record(slot.number, 0x77C1_5A08_6554_7B9D, b"sleep", db.time)
    torn.prev = rent.position
    torn.position = db.end
    db.raw(torn.encode()[:40])
    return db, db.describe("The second example of format-examples.md: one record shortened in place, "
                           "one deleted, one moved, and the beginning of one whose append was cut "
                           "off.", [entry(slot, [plants, moved, rent])], check=["S4"],
                           unreached=[(bread, "deleted"), (call, "older version")])


def full():
    db = Database(0xFFFF_FFFF_FFFF_FFFF, signature=b"qv\x00\xff", version=199)
    cut = b"a name that is cut at 32 bytes.."
    special = [b"\xc3\x9cbung", b"caf\xe9", cut, cut, b"tab\tand newline\n", b"x" * 31, b"written in place",
               b"data of no bytes", b"odd constants"]
    entries = []
    for index in range(31):
        name = special[index] if index < len(special) else b"table %d" % index
        slot = db.table(name, 0xA000_0000_0000_0001 + index)
        records, data = [], None
        for number in range(index % 4):
            # The same identifiers in every table, payloads of 0 bytes and spare capacity among them.
            payload = bytes(range(number * 7))
            records.append(db.add(slot, 0x0100 + number, payload, reserve=5 * number))
            db.later()
        if index == 6:
            data = db.setData(slot, b"a longer text than the next", reserve=40)
            db.overwriteData(data, b"short")
        if index == 7:
            data = db.setData(slot, b"", reserve=3)
        if index == 8:
            slot.version, slot.flags, slot.filler = 7, (1, 0x8000), 0
        entries.append(entry(slot, records, data))
    return db, db.describe("A full directory: 31 tables, names of every kind, other letters in the "
                           "signature and version 199.", entries)


def categories():
    db = Database(0x6C1D_35A0_6554_9F10)
    category = db.table(b"QVrz_Category", 0x10C5_EE29_6554_A001)
    record = db.table(b"QVrz_Record", 0x83B0_4F6D_6554_A112)
    info = db.table(b"QVrz_Info", 0xF471_0296_6554_A223)
    records = [db.add(record, 0x2000_0000_6554_B000 + i, b"item %d" % i) for i in range(3)]
    about = db.add(info, 0x3000_0000_6554_B000, b"shelf")
    described, blocks = [], []
    for number, name, first, second, extra in (
            (0x4000_0000_6554_C000, "Books", [records[2].number], [r.number for r in records[:2]], b""),
            (0x4000_0000_6554_C001, "B\u00fccher, " + "x" * 24, [], [], b"\x01\x02\x03")):
        payload = number.to_bytes(8, "big") + name.encode("utf-16-le").ljust(64, b"\0")
        payload += struct.pack(">I", 7) + about.number.to_bytes(8, "big")
        for numbers in (first, second):
            payload += struct.pack(">i", len(numbers))
            payload += b"".join(n.to_bytes(8, "big") for n in numbers)
        payload += struct.pack(">I", len(extra)) + extra
        blocks.append(db.add(category, number, payload))
        described.append({"id": shown(number), "name": name, "param": 7, "related": shown(about.number),
                          "first": [shown(n) for n in first], "second": [shown(n) for n in second],
                          "extra": text(extra)})
    contents = db.describe("The three special tables, with two category records: the one lists "
                           "records, the other has a name of all 32 characters and free bytes.",
                           [entry(category, blocks), entry(record, records), entry(info, [about])])
    contents["categories"] = described
    return db, contents


def packed():
    db = Database(0x0E88_B3D2_6554_D400)
    both = db.table(b"both", 0x5D27_A1C0_6554_D511)
    alone = db.table(b"data alone", 0x99E3_0C47_6554_D622)
    settings = db.setData(both, b"settings of the table")
    records = [db.add(both, 0x6000_0000_6554_D700 + i, b"kept %d" % i) for i in range(2)]
    others = db.setData(alone, b"settings")
    # What a pack writes: the positions that the data had in the source.
    both.data = [5871, 5871, 5871]
    both.dataWrites = 4
    return db, db.describe("A packed file: the slot of a table that has records holds the positions "
                           "of the table data in the source. The data is the table's one block of "
                           "data, which ends where its first record begins.",
                           [entry(both, records, settings), entry(alone, [], others)],
                           check=["T1", "T3"], unreached=[(settings, "lost")])


def unfinished():
    db = Database(0x73BA_50F9_6554_E808, version=101)
    first = db.table(b"first", 0x2218_D4E6_6554_E911)
    second = db.table(b"second", 0xCB90_7F35_6554_EA22)
    record = db.add(first, 0x7000_0000_6554_EB00, b"copied")
    return db, db.describe("The result of a pack that did not come to its end: version 101, one "
                           "record of those in the source, and a table whose records are still "
                           "missing.", [entry(first, [record]), entry(second)], check=["H3"])


def interrupted():
    db = Database(0xD6F4_118A_6554_F606)
    tables = [db.table(name, 0xE000_0000_6554_F700 + i) for i, name in enumerate(
        [b"added", b"moved", b"moved last", b"deleted first", b"deleted", b"deleted last"])]
    records = [[db.add(slot, 0x8000_0000_6554_F800 + i, b"record %d" % i) for i in range(3)]
               for slot in tables]
    added, moved, movedLast, deletedFirst, deleted, deletedLast = tables
    # The block and the link to it, not the slot.
    new = Record(added.number, 0x8000_0000_6554_F8FF, b"not counted", db.time)
    new.prev = added.last
    records[0][2].next = db.place(new).position
    # The link of the predecessor, not that of the successor.
    moving = db.newPlace(records[1][1], b"a longer record 1")
    records[1][0].next = moving.position
    # The link of the predecessor, not the slot.
    movingLast = db.newPlace(records[2][2], b"a longer record 2")
    records[2][1].next = movingLast.position
    # Links, not the slot.
    records[3][1].prev = 0
    records[4][0].next, records[4][2].prev = records[4][2].position, records[4][0].position
    records[5][1].next = 0
    return db, db.describe(
        "Each table shows an operation that was cut off before its last write.",
        [entry(added, records[0]), entry(moved, [records[1][0], moving, records[1][2]]),
         entry(movedLast, [*records[2][:2], movingLast]), entry(deletedFirst, records[3]),
         entry(deleted, [records[4][0], records[4][2]], complete=False),
         entry(deletedLast, records[5][:2], complete=False)],
        check=["R10", "R5", "R6", "R7", "R8"], unreached=[(records[4][1], "deleted")])


def damaged():
    db = Database(0x1999_C0DE_6555_0404)
    loop = db.table(b"loop", 0xAB12_0000_6555_0511)
    long = db.table(b"too long", 0xAB12_0000_6555_0522)
    nowhere = db.table(b"nowhere", 0xAB12_0000_6555_0533)
    halfway = db.table(b"halfway", 0xAB12_0000_6555_0544)
    marked = db.table(b"no end mark", 0xAB12_0000_6555_0555)
    hidden = db.table(b"hidden", 0xAB12_0000_6555_0566)
    round_ = [db.add(loop, 0x9000_0000_6555_0600 + i, b"round") for i in range(2)]
    round_[1].next, loop.count, loop.writes = round_[0].position, 7, 7
    claims = db.add(long, 0x9000_0000_6555_0700, b"seven..")
    claims.length = 0xFFFFFFF0
    lost = db.add(nowhere, 0x9000_0000_6555_0800, b"unreachable from the front")
    nowhere.first = -1
    half = [db.add(halfway, 0x9000_0000_6555_0900 + i, b"half") for i in range(3)]
    half[0].next, halfway.count, halfway.writes = 1 << 62, 0xFFFFFFFF, 0xFFFFFFFF
    marked.marks = (151, 0)
    db.add(hidden, 0x9000_0000_6555_0A00, b"hidden")
    looping = entry(loop, round_, complete=False)
    looping["loops"] = True
    return db, db.describe(
        "Damage of many kinds: a chain that loops, a length above the capacity, a first position of "
        "-1, a link beyond the end of the file under a count of 2^32 - 1, and a slot without its end "
        "mark, which hides the one after it.",
        [looping, entry(long, [claims]),
         entry(nowhere, complete=False), entry(halfway, half[:1], complete=False)],
        check=["D1", "D7", "R1", "R10", "R11", "R5", "R9"])


def scanned():
    db = Database(0x2C77_4A91_6555_1200)
    slot = db.table(b"blobs", 0x5EA1_0000_6555_1311)
    first = db.add(slot, 0xA000_0000_6555_1400, b"kept")
    inner = Record(slot.number, 0xA000_0000_6555_14FF, b"a block in a payload", START)
    second = db.add(slot, 0xA000_0000_6555_1401, b"before" + inner.encode() + b"after")
    deleted = db.add(slot, 0xA000_0000_6555_1402, b"deleted")
    third = db.add(slot, 0xA000_0000_6555_1403, b"kept too")
    second.next, third.prev = third.position, second.position
    slot.count = 3
    older = db.place(Data(slot.number, b"older data"))
    newer = db.setData(slot, b"newer data, of more bytes")
    slot.dataWrites = 2
    db.raw(b"bytes that are no block")
    unlinked = db.place(Record(slot.number, 0xA000_0000_6555_1404, b"never linked", START))
    unlinked.prev = third.position
    orphan = db.place(Record(0x5EA1_0000_6555_1322, 0xA000_0000_6555_1405, b"of another table", START))
    return db, db.describe(
        "What a scan finds: a deleted record, older table data, a record that was never linked, a "
        "record of a table that no slot has, and bytes that are no block. The block inside a payload "
        "is none of these.",
        [entry(slot, [first, second, third], newer)], check=["S2", "S5", "S8"],
        unreached=[(deleted, "deleted"), (older, "older version"), (unlinked, "never counted"),
                   (orphan, "orphan")])


FILES = (empty, notes, changes, full, categories, packed, unfinished, interrupted, damaged, scanned)


def main():
    folder = Path(sys.argv[1])
    for make in FILES:
        db, contents = make()
        (folder / f"{make.__name__}.qvd").write_bytes(db.encode())
        lines = json.dumps(contents, indent=1)
        (folder / f"{make.__name__}.json").write_text(lines + "\n")


if len(sys.argv) != 2:
    sys.exit(__doc__)
main()
