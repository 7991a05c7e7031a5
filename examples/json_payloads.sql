-- A view on records whose payloads are JSON, by SQLite's own JSON functions. Run in the shell:
--
--   sqlite3 -cmd '.load /usr/local/lib/qvdbase/qvdbsql' :memory: '.read json_payloads.sql'
--
-- The view is a temporary one: SQLite lets no stored view or trigger open files.
CREATE TEMP VIEW letters AS
SELECT rowid AS place,
       id,
       text ->> '$.subject' AS subject,
       text ->> '$.from' AS sender,
       text ->> '$.pages' AS pages,
       text -> '$.tags' AS tags
FROM qvdb_records('letters.qvd', 'letters')
WHERE json_valid(text);

-- The latest first: these are read from the end of the table.
SELECT subject, sender, pages FROM letters ORDER BY place DESC LIMIT 10;

-- A row for each tag.
SELECT tag.value, count(*) FROM letters, json_each(letters.tags) AS tag
GROUP BY tag.value ORDER BY count(*) DESC;
