# The structures of a database file as a grammar for Kaitai Struct. What makes a file valid, beyond its
# structures, is in format.md under "Valid files": a parser made of this grammar follows every position
# that it is asked for, and notices nothing but wrong marks.
meta:
  id: qvdb
  title: QVDbase database
  file-extension: qvd
  license: MIT
  ks-version: 0.9
  endian: be
doc-ref: format.md
seq:
  - id: header
    type: header
  - id: slots
    type: slot
    size: header.slot_size
    repeat: expr
    repeat-expr: header.slot_count
instances:
  blocks_start:
    value: 22 + header.slot_count * header.slot_size
types:
  identifier:
    seq:
      - id: number
        type: u8
        doc: The identity, as it is known outside the file.
      - id: sum
        type: u2
        doc: The sum of the eight bytes before.

  header:
    seq:
      - id: letters
        size: 2
        doc: Q and V, each in either case.
      - id: letters_rest
        size: 2
      - id: version
        type: u2
        valid:
          min: 100
          max: 199
      - id: database_id
        type: identifier
      - id: table_count
        type: s2
      - id: slot_count
        type: u2
      - id: slot_size
        type: u2
        valid:
          min: 144

  slot:
    meta:
      endian: le
    seq:
      - id: slot_mark
        type: u1
        doc: 151 in a slot that holds a table.
      - size: 1
      - id: info_size
        type: u2
      - id: table_version
        type: u2
      - id: table_id
        type: identifier
        doc: Big-endian, as everywhere.
      - id: table_name
        size: 32
        terminator: 0
      - id: table_flags1
        type: u2
      - id: table_flags2
        type: u2
      - size: 4
      - id: records_info_size
        type: u2
      - size: 2
      - id: record_count
        type: u4
      - id: record_write_count
        type: u4
      - size: 4
      - id: first_record_pos
        type: s8
      - id: last_written_record_pos
        type: s8
      - id: last_record_pos
        type: s8
      - id: data_info_size
        type: u2
      - size: 2
      - id: data_block_count
        type: u4
      - id: data_write_count
        type: u4
      - size: 4
      - id: first_data_pos
        type: s8
      - id: last_written_data_pos
        type: s8
      - id: last_data_pos
        type: s8
      - id: slot_end_mark
        type: u1
        doc: 121 in a slot that holds a table.
      - size: 7
    instances:
      holds_table:
        value: slot_mark == 151 and slot_end_mark == 121
      first_record:
        io: _root._io
        pos: first_record_pos
        type: record_block
        if: first_record_pos != 0
      last_record:
        io: _root._io
        pos: last_record_pos
        type: record_block
        if: last_record_pos != 0
      data:
        io: _root._io
        pos: first_data_pos
        type: data_block
        if: first_data_pos != 0

  record_block:
    seq:
      - id: block_mark
        contents: [135]
      - id: header_size
        contents: [0, 64]
      - id: table_id
        type: identifier
      - id: record_id
        type: identifier
      - id: create_time
        type: u4
      - id: modify_time
        type: u4
      - id: prev_record_pos
        type: s8
      - id: next_record_pos
        type: s8
      - id: data_length
        type: u4
      - id: data_capacity
        type: u4
      - id: capacity
        size: data_capacity
        doc: The payload, data_length bytes, and the fill.
      - id: block_end_mark
        type: u1
        doc: 105.
    instances:
      next:
        io: _root._io
        pos: next_record_pos
        type: record_block
        if: next_record_pos != 0
      prev:
        io: _root._io
        pos: prev_record_pos
        type: record_block
        if: prev_record_pos != 0

  data_block:
    seq:
      - id: block_mark
        contents: [150]
      - id: header_size
        contents: [0, 32]
      - id: table_id
        type: identifier
      - id: data_length
        type: u4
      - id: data_capacity
        type: u4
      - id: capacity
        size: data_capacity
        doc: The data, data_length bytes, and the fill.
      - id: block_end_mark
        type: u1
        doc: 105.

  # The payload of a record in the table "QVrz_Category".
  category:
    seq:
      - id: category_id
        type: u8
      - id: category_name
        size: 64
        doc: UTF-16, each character low byte first, padded with zeros.
      - id: category_param
        type: u4
      - id: related_id
        type: u8
      - id: first_id_count
        type: s4
      - id: first_ids
        type: u8
        repeat: expr
        repeat-expr: first_id_count
      - id: second_id_count
        type: s4
      - id: second_ids
        type: u8
        repeat: expr
        repeat-expr: second_id_count
      - id: extra_length
        type: u4
      - id: extra_data
        size: extra_length
