// Reads a Parquet file with DuckDB's reader and with hyparquet, which share no code, and prints the
// rows of each as JSON lines.
//
// Usage: node read_parquet.mjs FILE.parquet
import { asyncBufferFromFile, parquetReadObjects } from 'hyparquet'
import { compressors } from 'hyparquet-compressors'
import { DuckDBInstance } from '@duckdb/node-api'

const file = process.argv[2]

function line(place, table, id, created, modified, payload) {
  return JSON.stringify([Number(place), table, id, Number(created), Number(modified), payload])
}

const lines = []
const rows = await parquetReadObjects({ file: await asyncBufferFromFile(file), compressors, utf8: false })
for (const row of rows) {
  lines.push(line(row.place, row.table_name, row.id, row.created.getTime() / 1000,
    row.modified.getTime() / 1000, Buffer.from(row.payload).toString('hex')))
}

const connection = await (await DuckDBInstance.create(':memory:')).connect()
const result = await connection.runAndReadAll(
  'SELECT place, table_name, id, epoch(created)::BIGINT, epoch(modified)::BIGINT, lower(hex(payload)) ' +
  `FROM read_parquet('${file.replaceAll("'", "''")}')`)
const others = result.getRows().map(row => line(...row))

if (lines.length !== others.length) {
  console.error(`the readers differ: ${lines.length} and ${others.length} rows`)
  process.exit(1)
}
for (let i = 0; i < lines.length; ++i) {
  if (lines[i] !== others[i]) {
    console.error(`the readers differ in row ${i}:\n${lines[i].slice(0, 200)}\n${others[i].slice(0, 200)}`)
    process.exit(1)
  }
}
process.stdout.write(lines.map(each => each + '\n').join(''))
