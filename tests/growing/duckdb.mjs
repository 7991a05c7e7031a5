// Stands in for DuckDB's shell, which Debian does not have: runs one query and prints the values of
// each row with '|' between them.
//
// Usage: node duckdb.mjs [-noheader] [-list] -c QUERY
import { DuckDBInstance } from '@duckdb/node-api'

const query = process.argv[process.argv.indexOf('-c') + 1]
const connection = await (await DuckDBInstance.create(':memory:')).connect()
const result = await connection.runAndReadAll(query)
for (const row of result.getRows()) console.log(row.map(String).join('|'))
