// The texts that --help prints. Only main.cpp uses them.
#ifndef K9EREPL_K9REPL_HELP_TEXTS_H
#define K9EREPL_K9REPL_HELP_TEXTS_H

namespace k9repl {

inline constexpr const char* kMainHelp =
    "Looks into, feeds and clears a replication storage: a file of records with rising "
    "revisions.\n";

inline constexpr const char* kMainFooter = R"(
A storage is named and configured by a connection string, items KEY=VALUE separated by ';':
  file=PATH                 the storage file; the index file lies beside it
  block_size=BYTES          memory block; a new record has at most BYTES-24 of data (default
                            1048672); commands that only read take larger ones as they come
  flush_mode=PerTrans;flush_trans_num=N
                            transactions a flush (default 10)
  force_flush=yes           each flush reaches the disk, not only the system (default no)
docs/configuration.md has all of them. Put the string in quotes: a shell splits it at ';'. A key or
word that is unknown, given twice or without effect is refused (status 2).

Examples:
  k9repl append --create --conn 'file=/tmp/log.edb' /var/log/dpkg.log
  k9repl cat --conn 'file=/tmp/log.edb' --from 10 --to 20
  k9repl stat --conn 'file=/tmp/log.edb'
  k9repl verify --conn 'file=/tmp/log.edb'
  k9repl clear --conn 'file=/tmp/log.edb' --to 15 --mode squeeze-backup
  k9repl COMMAND --help

Exit status: 0 success, 1 failure, 2 wrong command line, 4 the storage file is damaged in the middle
(append, cat, stat, verify), 128+N interrupted by signal N; verify also has 3. A reader that goes
away (k9repl cat ... | head) is no failure.
The cause of a failure is told on standard error. K9SYS_LOG=info prints the library's log there.)";

inline constexpr const char* kAppendHelp = "Appends records from a file or a pipe to a storage";

inline constexpr const char* kAppendFooter = R"(
Each line of FILE, or of standard input, becomes one record, without its newline.
An empty line is a record without data; bytes behind the last newline are a record, too.
A transaction is committed when it has N records, and MS milliseconds after its first one, even
when no further line comes. Then the storage is flushed, too, whatever flush_trans_num up to 1000
says; a larger one, a negative one and flush_mode=PerData may wait for flush_timeout besides. So a
process that is killed loses the records of the last MS milliseconds at most, and the line whose
newline had not come.

--ack prints each new revision when it is stored, one a line in rising order, and the summary goes
to standard error. A revision that was printed survives the end of this process, by kill -9 too.
It survives a power cut, too, with force_flush=yes or write_through=yes: then it is on the disk.
With async_mode=yes only write_through=yes does that; force_flush acts once, at the end. When
nobody reads the lines any more, the records are appended all the same.

Where the file is damaged in the middle, nothing is appended, and the status is 4: the new records
would take the place of those behind the damage. --accept-damage appends behind the last good
record. What lies behind the damage is then only in PATH.damaged-tail; see k9repl verify --help.

On SIGINT, SIGTERM or SIGHUP the records read so far are committed and the storage is closed.
After a failure the records before it are committed, and the message tells the last revision that
is safely stored: what that means is what it means for --ack.

Examples:
  k9repl append --create --conn 'file=log.edb' /var/log/dpkg.log
  journalctl -f | k9repl append --conn 'file=log.edb;force_flush=yes' --commit-after 200
  producer | k9repl append --conn 'file=log.edb;force_flush=yes' --ack | consumer-of-revisions
  k9repl cat --conn 'file=a.edb' --format length-prefixed |
      k9repl append --create --conn 'file=b.edb' --length-prefixed)";

inline constexpr const char* kCatHelp = "Prints the records of a storage in the order of revisions";

inline constexpr const char* kCatFooter = R"(
Nothing is written: a file that may only be read will do, and another process may append meanwhile.
Where the load of a damaged file ends early, the records before the damage are printed, a line on
standard error says so, and the status is 4.

Formats:
  lines            the data and a newline
  raw              the data, nothing between records
  json             an object a line: {"rev":1,"userWord":0,"size":5,"data":"hello"};
                   data that is no valid UTF-8 comes as "base64" instead of "data"
  length-prefixed  32-bit little-endian length, then the data; append --length-prefixed reads it

Examples:
  k9repl cat --conn 'file=log.edb'
  k9repl cat --conn 'file=log.edb' --from 100 --to 199 --format json
  k9repl cat --conn 'file=log.edb' --format raw | sha256sum)";

inline constexpr const char* kStatHelp =
    "Prints revisions, marks, file sizes and the number of blocks";

inline constexpr const char* kStatFooter = R"(
"next revision" is the one that the next record gets, "oldest revision" that of the first record
that is still served. "none" stands for what does not exist. A ".backup" and a ".temporary" that
a squeeze has left beside the storage are told with their sizes; see k9repl clear --help. So is a
".damaged-tail", which a load has kept of a damaged file; see k9repl verify --help. Nothing is
written. The heads of the whole file are read, so damage in the middle is found, too, where an index
lets a load pass over it: the status is 4 then.

Examples:
  k9repl stat --conn 'file=log.edb'
  k9repl stat --conn 'file=log.edb' --format json)";

inline constexpr const char* kVerifyHelp =
    "Tells whether a storage file is sound, changing nothing";

inline constexpr const char* kVerifyFooter = R"(
Reads the file from beginning to end and checks heads, sizes, revisions and the chain of commit
blocks; data has no checksum and is not judged. Nothing is written, no index file is used, and no
setting but file counts. What it says, and the exit status:
  sound                 0  Behind the last commit block there is nothing but zeros.
  torn end              3  Bytes lie there that no load takes: of a write that was cut off, or of a
                           transaction that was undone. A load passes over them, and the next write
                           makes them zero. Nothing committed is lost, unless it was the last flush
                           of all that was damaged later: that looks the same.
  damage in the middle  4  Bytes are broken, and behind them the data goes on. A load takes what
                           lies before them. It keeps everything behind the last good commit block
                           as PATH.damaged-tail (then .damaged-tail.1, ...) before the next write
                           makes it zero. "revisions beyond" are those found within 10 MiB.
1 is for a file that cannot be read or is no storage. While another process writes to the file, the
end may look torn.

With damage in the middle, copy the file before anything else; the disk is not to be trusted. The
bytes up to "end of the data" and PATH.damaged-tail, one behind the other, are the file as found.

Examples:
  k9repl verify --conn 'file=log.edb'
  k9repl verify --conn 'file=log.edb' --format json)";

inline constexpr const char* kClearHelp = "Takes the revisions below a revision away";

inline constexpr const char* kClearFooter = R"(
The records below R go, R itself is kept; records keep their revisions. What MODE does to the
storage file:
  logical         The file keeps the records and grows by a mark of 32 bytes; they are not served
                  any more. Quick. A later squeeze takes them out of the file.
  squeeze         What is kept is copied to PATH.temporary, and when the copy is complete and on the
                  disk it takes the place of the file at PATH. The records below R are gone for
                  good.
  squeeze-backup  The same, and the file as it was before stays as PATH.backup, in place of an
                  older backup. It is a storage of its own: file=PATH.backup opens it.
  mark            Notes R as the clear mark of the storage. No record goes.

R at the next revision takes EVERYTHING away, with every mode but mark: the file is begun anew in
its place, keeps its size on disk unless the connection string has file_initial_size, and, with
squeeze-backup too, NO BACKUP IS MADE. R above it does the same, which is rarely meant: it is
refused (status 2) unless --all is given. Then the command asks first, and refuses where there is no
terminal to ask on, unless --yes is given. R not above the oldest revision has nothing to do; a
squeeze then only takes out what was cleared logically before.

Disk room: a squeeze needs room for a second copy of what is kept. The old file's room is free when
it is done; with squeeze-backup it is free when you delete PATH.backup, which itself needs none.
Where there is not enough, the command says how much it needs and changes nothing.

When something goes wrong, at every moment either the file at PATH or PATH.backup is whole:
  PATH.temporary is left behind by a squeeze that was killed. It is an unfinished copy; the storage
  at PATH is whole. Delete it and run the command again, unless another process is squeezing.
  PATH.backup without PATH is left where the file system knows no second names for a file and the
  end came between two renames. All data is in it: rename it to PATH.
stat, and every command that meets such a file, says so. An interrupt (SIGINT, SIGTERM, SIGHUP) lets
a squeeze finish, then the status tells the signal; a second one ends it at once, which is safe and
leaves PATH.temporary.

Examples:
  k9repl clear --conn 'file=log.edb' --to 1000 --mode logical
  k9repl clear --conn 'file=log.edb' --to 9223372036854775807 --all --yes --mode logical
  k9repl clear --conn 'file=log.edb' --to 1000 --mode squeeze-backup
  k9repl cat --conn 'file=log.edb.backup' --to 999)";

inline constexpr const char* kTruncateHelp = "Throws everything in a storage away";

inline constexpr const char* kTruncateFooter = R"(
All records go for good and no backup is made; the next revision is 1 again, life number and clear
mark are 0. The file at PATH stays, begun anew in its place: it keeps its size on disk, unless the
connection string has file_initial_size, whose size it gets then. PATH.backup of an earlier squeeze
is not touched. To keep the revisions rising, use clear with R at the next revision instead.

Asks before it does anything. Without a terminal to ask on it refuses, and changes nothing, unless
--yes is given.

Examples:
  k9repl truncate --conn 'file=log.edb'
  k9repl truncate --yes --conn 'file=log.edb')";

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_HELP_TEXTS_H
