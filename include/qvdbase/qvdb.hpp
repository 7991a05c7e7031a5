// QVDbase for C++20: databases, tables and records as objects. Includes the whole layer.
//
//   auto database = qvdb::Database::create("notes.qvd");
//   auto notes = database.add_table("notes");
//   const qvdb::Id id = notes.add(std::as_bytes(std::span(text)));
//   for (const qvdb::Record& record : notes.records()) use(record.id(), record.payload());
//
// Absence is a std::optional, failure is a qvdb::Error that says which operation failed and, found
// by looking at the file afterwards, why. Destructors never throw. Everything that is written is
// written by the functions of qvdbase.h or by what they consist of, and the two can be mixed on one
// open database through Database::handle().
//
// The rules of the C functions, and the caveats in qvdbase.h, hold here too: when an operation has
// returned, all that it wrote is with the operating system, and Database::sync() asks for more. No
// operation of this layer moves the file position of the handle. Several threads may use a
// Database, its tables, records and indexes; walks, appenders and writers belong to one thread at a
// time (docs/threads.md).
//
// What an update of the library keeps: source code that compiles with one version of this layer
// compiles with every later 1.x version and means the same; structs of options and reports get new
// members at their end only, with defaults, and enumerations new values. Binary code is another
// matter: the C functions keep their interface for as long as the library is libqvdbase.so.1, the
// classes and structs of this layer do not. Compile an application that uses them again with the
// headers of each version that it is run with.
#pragma once

#include <qvdbase/qvdb/cpp20.hpp>

#include <qvdbase/qvdb/backup.hpp>
#include <qvdbase/qvdb/bulk.hpp>
#include <qvdbase/qvdb/bytes.hpp>
#include <qvdbase/qvdb/cache.hpp>
#include <qvdbase/qvdb/check.hpp>
#include <qvdbase/qvdb/checksum.hpp>
#include <qvdbase/qvdb/database.hpp>
#include <qvdbase/qvdb/error.hpp>
#include <qvdbase/qvdb/extents.hpp>
#include <qvdbase/qvdb/file_writer.hpp>
#include <qvdbase/qvdb/history.hpp>
#include <qvdbase/qvdb/id.hpp>
#include <qvdbase/qvdb/index.hpp>
#include <qvdbase/qvdb/key_index.hpp>
#include <qvdbase/qvdb/maintenance.hpp>
#include <qvdbase/qvdb/mend.hpp>
#include <qvdbase/qvdb/output_file.hpp>
#include <qvdbase/qvdb/reader.hpp>
#include <qvdbase/qvdb/record.hpp>
#include <qvdbase/qvdb/salvage.hpp>
#include <qvdbase/qvdb/table.hpp>
#include <qvdbase/qvdb/transaction.hpp>
#include <qvdbase/qvdb/trim.hpp>
#include <qvdbase/qvdb/writer.hpp>
