// Compiles the grammar docs/qvdb.ksy, reads the conformance files with the parser that comes out, and
// compares them with their descriptions. Blocks to which nothing leads are found by the scan that
// docs/format.md gives.
//
// Usage: node read_files.js DOCS MODULES    MODULES: the folder that npm installed into
'use strict';
const assert = require('node:assert');
const fs = require('node:fs');
const path = require('node:path');
const vm = require('node:vm');

const [docs, modules] = process.argv.slice(2);
const load = require('node:module').createRequire(path.join(path.resolve(modules), 'package.json'));
const KaitaiStream = load('kaitai-struct/KaitaiStream');

async function compiled(grammar) {
  const files = await load('kaitai-struct-compiler')
      .compile('javascript', load('yaml').parse(fs.readFileSync(grammar, 'utf8')), null, false);
  const module = {exports: {}};
  const wanted = (name) => load(name);
  vm.runInThisContext(`(function (exports, require, module) {${files['Qvdb.js']}\n})`)(
      module.exports, wanted, module);
  return module.exports.Qvdb;
}

const text = (bytes) => Buffer.from(bytes).toString('latin1');
const shown = (number) => '0x' + number.toString(16).padStart(16, '0');

// Identifiers and positions need more digits than a number of this language has, so they are taken
// from the bytes; the parser has settled where these are.
const exact = (file, position) => file.readBigUInt64BE(position);

class Reader {
  constructor(Qvdb, file) {
    this.file = file;
    this.Qvdb = Qvdb;
    this.root = new Qvdb(new KaitaiStream(file.buffer, file.byteOffset));
    this.slots = this.root.slots.map((slot, index) => {
      const image = file.subarray(22 + 144 * index, 22 + 144 * (index + 1));
      return {slot, image, tableID: image.subarray(6, 16), id: exact(image, 6)};
    });
  }

  // A block of the table at a position, or nothing.
  block(Type, position, tableID) {
    if (!(position >= this.root.blocksStart && position <= this.file.length)) return null;
    const stream = new KaitaiStream(this.file.buffer, this.file.byteOffset);
    stream.seek(position);
    try {
      const block = new Type(stream, this.root, this.root);
      block.position = position;
      block.end = stream.pos;
      return this.file.subarray(position + 3, position + 13).equals(tableID) ? block : null;
    } catch {
      return null;
    }
  }

  // The records from a position on, by the links of that name; ends at a record passed before.
  walk(position, link, most, tableID) {
    const records = [];
    const passed = new Set();
    while (position !== 0 && records.length < most && !passed.has(position)) {
      passed.add(position);
      const record = this.block(this.Qvdb.RecordBlock, position, tableID);
      if (record === null) break;
      records.push(record);
      position = record[link];
    }
    return records;
  }

  dataOf({slot, tableID}) {
    if (slot.firstDataPos === 0) return null;
    const there = this.block(this.Qvdb.DataBlock, slot.firstDataPos, tableID);
    if (there !== null) return there;
    // A packed table: its one block of data, which ends where its first record begins.
    const found = this.scan([]).filter((block) => block instanceof this.Qvdb.DataBlock &&
        this.file.subarray(block.position + 3, block.position + 13).equals(tableID));
    assert.equal(found.length, 1);
    assert.equal(found[0].end, slot.firstRecordPos);
    return found[0];
  }

  record(record) {
    const start = record.position + 55;
    return {
      id: shown(exact(this.file, record.position + 13)),
      position: record.position,
      created: record.createTime,
      modified: record.modifyTime,
      capacity: record.dataCapacity,
      payload: record.dataLength > record.dataCapacity
          ? null : text(this.file.subarray(start, start + record.dataLength)),
    };
  }

  table(one) {
    const {slot, tableID, id} = one;
    const records = this.walk(slot.firstRecordPos, 'nextRecordPos', slot.recordCount, tableID);
    const data = this.dataOf(one);
    const table = {
      name: text(slot.tableName),
      id: shown(id),
      data: data === null ? null : text(data.capacity.subarray(0, data.dataLength)),
      data_position: data === null ? 0 : data.position,
      complete: records.length === slot.recordCount,
      records: records.map((record) => this.record(record)),
    };
    const next = records.length > 0 ? records.at(-1).nextRecordPos : 0;
    if (!table.complete && records.some((record) => record.position === next)) table.loops = true;
    return table;
  }

  tables() {
    const counted = this.slots.slice(0, Math.max(0, this.root.header.tableCount));
    const bad = counted.findIndex(({slot}) => !slot.holdsTable);
    return (bad < 0 ? counted : counted.slice(0, bad)).map((one) => this.table(one));
  }

  // All blocks to which chains and slots lead, also those of slots with one mark only.
  covered() {
    const blocks = [];
    for (const {slot, tableID} of this.slots) {
      if (slot.slotMark !== 151 && slot.slotEndMark !== 121) continue;
      blocks.push(...this.walk(slot.firstRecordPos, 'nextRecordPos', Infinity, tableID));
      blocks.push(...this.walk(slot.lastRecordPos, 'prevRecordPos', Infinity, tableID));
      const data = this.block(this.Qvdb.DataBlock, slot.firstDataPos, tableID);
      if (data !== null) blocks.push(data);
    }
    return blocks;
  }

  isSound(position) {
    const identity = this.file.subarray(position, position + 8);
    return identity.some((byte) => byte !== 0) &&
        identity.reduce((sum, byte) => sum + byte, 0) === this.file.readUInt16BE(position + 8);
  }

  whole(position) {
    const start = this.file.subarray(position, position + 3).toString('hex');
    const Type = {'870040': this.Qvdb.RecordBlock, '960020': this.Qvdb.DataBlock}[start];
    if (Type === undefined) return null;
    const block = this.block(Type, position, this.file.subarray(position + 3, position + 13));
    if (block === null || block.dataLength > block.dataCapacity || block.blockEndMark !== 105) {
      return null;
    }
    const isOurs = this.slots.some(
        ({tableID}) => tableID.equals(this.file.subarray(position + 3, position + 13)));
    if (!isOurs && !this.isSound(position + 3)) return null;
    if (Type === this.Qvdb.RecordBlock && !this.isSound(position + 13)) return null;
    block.isOurs = isOurs;
    return block;
  }

  scan(covered) {
    const found = [];
    let position = this.root.blocksStart;
    while (position + 22 <= this.file.length) {
      const around = covered.find((one) => one.position <= position && position < one.end);
      const block = around === undefined ? this.whole(position) : null;
      if (around !== undefined) {
        position = around.end;
      } else if (block !== null && !this.holdsAnother(block)) {
        found.push(block);
        position = block.end;
      } else {
        position += 1;
      }
    }
    return found;
  }

  holdsAnother(block) {
    for (let inner = block.position + 1; inner < block.end; inner++) {
      if (this.whole(inner)?.isOurs) return true;
    }
    return false;
  }

  categories(table) {
    return table.records.map((record) => {
      const payload = Buffer.from(record.payload, 'latin1');
      const category = new this.Qvdb.Category(
          new KaitaiStream(payload.buffer.slice(payload.byteOffset, payload.byteOffset + payload.length)),
          this.root, this.root);
      const second = 92 + 8 * category.firstIdCount;
      const ids = (from, count) =>
          Array.from({length: count}, (_, i) => shown(exact(payload, from + 8 * i)));
      return {
        id: shown(exact(payload, 0)),
        name: Buffer.from(category.categoryName).toString('utf16le').replace(/\0.*$/s, ''),
        param: category.categoryParam,
        related: shown(exact(payload, 76)),
        first: ids(88, category.firstIdCount),
        second: ids(second, category.secondIdCount),
        extra: text(category.extraData),
      };
    });
  }

  contents() {
    const {header} = this.root;
    return {
      size: this.file.length,
      signature: text(header.letters) + text(header.lettersRest),
      version: header.version,
      id: shown(exact(this.file, 6)),
      tables: this.tables(),
    };
  }
}

async function main() {
  const Qvdb = await compiled(path.join(docs, 'qvdb.ksy'));
  const folder = path.join(docs, 'conformance');
  const names = fs.readdirSync(folder).filter((name) => name.endsWith('.qvd'));
  assert.ok(names.length > 0);
  for (const name of names) {
    const expected = JSON.parse(fs.readFileSync(path.join(folder, name.replace(/qvd$/, 'json'))));
    const reader = new Reader(Qvdb, Buffer.from(fs.readFileSync(path.join(folder, name))));
    const found = reader.contents();
    for (const key of Object.keys(found)) {
      assert.deepStrictEqual(found[key], expected[key], `${name}: ${key}`);
    }
    if (expected.categories) {
      assert.deepStrictEqual(reader.categories(found.tables[0]), expected.categories, name);
    }
    const unreached = reader.scan(reader.covered()).map((block) => [
      block.position, block instanceof Qvdb.RecordBlock ? 'record' : 'table data']);
    assert.deepStrictEqual(unreached, expected.unreached.map((one) => [one.position, one.kind]), name);
    console.log(`${name}: as described`);
  }
}

main().catch((error) => {
  console.error(error.message);
  process.exit(1);
});
