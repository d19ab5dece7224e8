// Declarations of the firmware's utility library libstrutils.so, as the daemon uses it.
//
// The library is closed; these are the operations the daemon calls and the parts of its
// structures that the daemon reads (the count and the items of a list). On a development
// host the stand-in in strutils_host.cpp implements them; its behaviour is described here.
//
// No operation takes or returns a time, an off_t or a long: only texts, ints and pointers.
// So the interface is the same whether the daemon is built with 32-bit or (as it always
// is) with 64-bit time_t and file offsets on a 32-bit router; the firmware's library does
// not have to be rebuilt for the daemon's 64-bit time.
#pragma once

extern "C" {

// Key/value configuration store.
struct taglist;

// Parses the file at path into a tag list; returns nullptr when the file cannot be read.
// Stand-in: the file is read as readfile reads it (below: never blocks, at most 16 MiB);
// lines "KEY=VALUE"; the value may stand in double quotes, which are removed; blank lines
// and lines whose first non-blank character is '#' are ignored, and so are lines without
// '='; the last occurrence of a key wins. The two flags are accepted and not interpreted.
taglist* load_taglist_ex(const char* path, int flag1, int flag2);

// Returns the value text of key, or def when the key is absent (so a null default gives
// null). The text stays owned by the list.
const char* get_taglist_default_ex(taglist* list, const char* def, const char* key);

// Releases a list returned by load_taglist_ex; nullptr is accepted.
void free_taglist(taglist* list);

// A list of integers.
struct numlist {
    int count;
    int* nums;
};

// Reads the integers of text, separated by spaces, tabs, line ends or commas; returns
// nullptr when it holds none. Stand-in: a token that is not a whole decimal integer that
// fits an int is skipped.
numlist* create_numlist(const char* text);
void free_numlist(numlist* list);

// A list of texts (IPv4 addresses as dotted text, or any short names).
struct iplist {
    int count;
    char** items;
};

// A new empty list, or nullptr when memory runs out.
iplist* init_iplist(void);
// The dotted IPv4 addresses found in text, in order, as a new list; nullptr when text is
// null. Stand-in: an address is four decimal numbers of 0..255 joined by dots and not
// touching another digit or dot. The second argument is accepted and not interpreted.
iplist* create_iplist(const char* text, int flag);
// Adds a copy of item at the end. Returns 0, or -1 when memory runs out.
int append_iplist(iplist* list, const char* item);
// Adds a copy of item (the stand-in adds it at the end). Returns 0, or -1.
int insert_iplist(iplist* list, const char* item);
// Removes the first item equal to text. Returns 0, or -1 when no item is equal.
int remove_iplist(iplist* list, const char* text);
void free_iplist(iplist* list);

// The whole content of the file at path as a newly allocated text that the caller frees
// with free(); nullptr when it cannot be read. The second argument is accepted and not
// interpreted by the stand-in.
//
// Stand-in, how a file is read (load_taglist_ex reads through here too):
// - It is opened like the daemon's own input files, with O_NONBLOCK and O_CLOEXEC, so that
//   nothing planted at the name can stall the daemon: a FIFO without a writer reads as an
//   empty file (""), a FIFO with a writer gives what the pipe holds at that moment, and
//   neither the open nor a read ever waits.
// - A file of more than 16 MiB cannot be read: the result is nullptr, as for a missing
//   file. A regular file is refused by its size before a byte is read; a FIFO or a device,
//   which report no size, once a byte beyond 16 MiB has come. So a call never holds more
//   than 16 MiB (and the tag list built from it) in memory.
//   Why 16 MiB: the largest file read here is the configuration file, one KEY=VALUE line
//   per setting; even 16,384 settings of 256-byte lines make 4 MiB, four times less than
//   the limit, and the other files read here, "/var/run/korel/lan" and
//   "/var/run/korel/wanip/wan%d", hold a few lines (under 1 KiB).
//   Why unreadable rather than cut at the limit: a text cut at an arbitrary byte would
//   hand the loader a half line as a value and lose every key after it without a trace,
//   while a refused file leaves the daemon's settings as a missing file does (it tries
//   again at the next tick). The daemon's own readers treat a file above their limit the
//   same way.
char* readfile(const char* path, int flag);

} // extern "C"
