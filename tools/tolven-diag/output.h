// tolven-diag's output: a send's request and reply as text (hex dump, decoded fields, notes) or
// as one JSON object a line, and the summary of repeated sends.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include <json/value.h>

#include "args.h"
#include "decode.h"
#include "log_reader.h"
#include "send.h"

namespace tolven_diag_tool {

// A send's JSON object with every key of one, null where nothing is known yet; |kind| is "sync"
// or "no-wait".
Json::Value json_send(const Options& o, const char* kind);
// A decoded reply's kind and fields, numbers as numbers and text as its characters.
Json::Value json_decoded(const Decoded& d);
// One JSON object a line, keys in order, milliseconds to a tenth.
void print_json_value(FILE* out, const Json::Value& value);
// |s|, or null when it is empty.
Json::Value json_or_null(const std::string& s);

// Flushes |out|; false once a write to it failed.
bool output_ok(FILE* out);

// "tolven-diag: MESSAGE" on standard error.
void error(const std::string& message);

std::string bytes_text(size_t n);  // "1 byte", "55 bytes"
std::string ms_text(double ms);    // "0.2 ms"

// Rows of 16 bytes: offset, hex, printable characters.
void dump(FILE* out, const uint8_t* data, size_t len);

// The line before a synchronous send's replies: the request with the time-out the library
// applies, then its bytes.
void print_request(FILE* out, const Options& o);
// One send; |shown| is the last reply shown in full, not shown again when this one is the same.
void print_run(FILE* out, const Options& o, const Run& run, const Run* shown);
// |interrupted|: the name of the signal that ended the run early, or null.
void print_summary(FILE* out, const Options& o, Tally tally, const char* interrupted);

// A command of the library's log, as a send is shown (text, or one JSON object with a live
// send's keys and where it ran), and the summary of a log.
void print_logged(FILE* out, const Options& o, const LoggedCommand& c);
void print_log_summary(FILE* out, const Options& o, const LogSummary& s);

// ", port PATH (FRAMING)" when a port was given.
std::string port_text(const Options& o);

}  // namespace tolven_diag_tool
