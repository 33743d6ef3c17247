// What stands below the options where a command is asked for help.
#pragma once

namespace pmi_cli {

inline constexpr const char *kRunHelp = R"(Indexes:
  An object has up to 8 indexes, numbered 0 to 7; --index selects objects through them.
  A whole file has two: 0 is its extension without the dot, 1 its size in bytes, a number.
  A paragraph has those that --index-from fills; a paragraph without the field lacks the index.
  Values are text of up to 32 bytes; of a longer field the first 32 bytes are the value.

Queries:
  --query selects by conditions on index0 to index7, size and age (in seconds):
    index0 = "libs" and (size > 4096 or not index1 between 10 and 0x1F)
    index0 in ("c", "h") and age < 60 limit 100        index0 starts with "lib" sample 2.5%
  A number compares as a number, a text in double quotes byte by byte. 'pmi explain' says what a
  query would find, and how.

Stores:
  Without --store and OMRA_STORE, objects are kept in this process's memory for as long as it runs.
  With one, such as rados:POOL, the function runs on the objects of --app-id that are there ('pmi
  load' and 'pmi put' store them); INPUT, if there is any, is loaded as temporary objects of an app
  id of its own, on which alone the function runs.
  --index compares text; of stored objects, numbers are for --query.

Examples:
  pmi run ./word_frequencies.so --params 10 /usr/include
  pmi run ./word_frequencies.so --hosts 4 --query 'index0 = "h" and size > 4096' /usr/include
  pmi run ./grep.so --params 'TODO|FIXME' --index 0=h --index 0=c --any src
  apt-cache dumpavail | pmi run ./record_statistics.so --split paragraphs
      --params 'value=Installed-Size by=Section' --index-from 0=Section --index 0=libs -
  pmi run ./word_frequencies.so --store rados:omra --query 'size > 4096'

The result goes to standard output, everything else to standard error. Exit codes: 0 success,
1 some objects failed, 2 bad usage or input, 3 the invocation failed or standard output cannot be
written, 130 cancelled: Ctrl-C cancels the invocation, a second one ends the program at once.)";

inline constexpr const char *kExplainHelp =
    R"(Prints how many objects the query may find, then its conditions, the cheapest first, with the number
of objects that each would give and whether they are looked up in an index.

Examples:
  pmi explain --query 'index0 = "h" and size > 4096' /usr/include
  pmi explain --query 'index0 = "h" and size > 4096' --store rados:omra)";

inline constexpr const char *kLoadHelp =
    R"(All of the input is loaded, or nothing: what has been is removed again after a failure or Ctrl-C.
Input that is loaded again becomes further objects.

Example:
  pmi load --store rados:omra --split paragraphs --index-from 0=Section catalogue)";

inline constexpr const char *kListHelp =
    R"(A line is a key and, of an object that 'pmi load' has stored, a tab and its name. Keys come in key
order, in which the objects of a load stand in the order of the input.

Examples:
  pmi ls --store rados:omra --limit 10
  pmi ls --store rados:omra --app-id 1 --query 'index0 = "h" and size > 4096' --json)";

inline constexpr const char *kKeysHelp =
    R"(A KEY is APP_ID:ID or APP_ID:ID:ID as 'pmi ls' prints it; 1:42 is the object of app id 1 whose
obj_id is the number 42. Numbers may be hexadecimal, 1:0x2A.

Exit codes: 0 success, 1 an object is not there, or is there already, 2 bad usage or input, 3 the
store failed or standard output cannot be written.)";

inline constexpr const char *kHelp = R"(Examples:
  pmi functions ./word_frequencies.so
  pmi run ./word_frequencies.so /usr/include
  pmi explain --query 'index0 = "h" and size > 4096' /usr/include
  pmi run --help

With a store that keeps its objects, given by --store or OMRA_STORE:
  export OMRA_STORE=rados:omra
  pmi load /usr/include
  pmi ls --query 'index0 = "h"' --limit 10
  pmi run ./word_frequencies.so
  pmi rm --app-id 1 --query 'size >= 0')";

} // namespace pmi_cli
