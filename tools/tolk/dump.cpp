// `tolk dump`: shows a block or frames, record by record.
#include <fmt/format.h>

#include <cctype>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "tools/tolk/command.h"
#include "tools/tolk/dump_page.h"
#include "tools/tolk/file_bytes.h"
#include "tools/tolk/frames.h"
#include "tools/tolk/output.h"
#include "tools/tolk/printable.h"
#include "tools/tolk/record_json.h"

namespace tolk::tool {
namespace {

struct Settings {
  std::string file = kStandardInput;
  bool block = false;
  bool frames = false;
  bool hex = false;
};

bool is_in(const char* set, char character) {
  return character != '\0' && std::strchr(set, character) != nullptr;
}

// Two hexadecimal digits a byte, with blanks anywhere, and comments from # to the end of the line.
std::string bytes_from_hex(const std::string& text) {
  constexpr const char* kHint = "write two hexadecimal digits for each byte";
  std::string digits;
  bool comment = false;
  for (const char character : text) {
    if (character == '#') comment = true;
    if (character == '\n') comment = false;
    if (comment || is_in(" \t\r\n", character)) continue;
    if (std::isxdigit(static_cast<unsigned char>(character)) == 0) {
      throw Failure(Exit::failed,
                    fmt::format("no hexadecimal digit: {}", printable({&character, 1})), kHint);
    }
    digits += character;
  }
  if (digits.size() % 2 != 0) throw Failure(Exit::failed, "half a byte at the end", kHint);
  std::string bytes;
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

// What a file holds is all there, however large its frames are.
FrameCutter cutter_of(std::string_view bytes) {
  FrameCutter cutter(std::numeric_limits<std::size_t>::max());
  cutter.add(bytes);
  return cutter;
}

std::optional<Flaw> end_of(const FrameCutter& cutter) {
  return cutter.lost() ? cutter.lost() : cutter.missing();
}

bool is_hex(const std::string& text) {
  try {
    return !bytes_from_hex(text).empty();
  } catch (const Failure&) {
    return false;
  }
}

// What to try with bytes that are not what they were taken for.
std::string hint_for(const std::string& bytes, const Settings& settings, bool frames) {
  if (!settings.hex && is_hex(bytes)) return "give --hex, as they look like hexadecimal digits";
  if (bytes.starts_with("\x0a\x0d\x0d\x0a")) return "open it with Wireshark, it is a capture";
  if (settings.frames || settings.block) return "look whether it is what the option says";
  return fmt::format("say what it is with {}", frames ? "--block" : "--frames");
}

// What is one without a flaw is that; what is neither is frames if it begins with one.
bool are_frames(std::string_view bytes) {
  FrameCutter cutter = cutter_of(bytes);
  bool any = false;
  bool good = true;
  while (const auto frame = cutter.next()) {
    const Block block = read_block(frame->payload());
    if (!any && block.flaw && block.records.empty()) return false;
    any = true;
    if (block.flaw) good = false;
  }
  if (!any) return false;
  return (good && !end_of(cutter)) || read_block(bytes).flaw.has_value();
}

Json frame_json(const FrameCutter::Frame& frame) {
  const Message message = read_message(frame.payload());
  Json json = {{"offset", frame.offset}, {"kind", to_string(message.kind)}};
  if (!message.method.empty()) json["method"] = text_to_json(message.method);
  if (message.token) json["token"] = text_to_json(*message.token);
  add_content(json, message);
  json["bytes"] = frame.size;
  return json;
}

// The text is made for JSON too: it is where flaws are found.
void print(DumpPage& page, const Json& json, JsonStyle style) {
  const std::string text = page.take();
  Output::get().data(style == JsonStyle::off ? text : text_of(json, style) + "\n");
}

void show_frames(std::string_view bytes, JsonStyle style, DumpPage& page) {
  FrameCutter cutter = cutter_of(bytes);
  std::size_t number = 0;
  while (auto frame = cutter.next()) {
    // The cutter holds a copy; offsets are found in the input.
    frame->bytes = bytes.substr(static_cast<std::size_t>(frame->offset), frame->bytes.size());
    page.frame(++number, *frame);
    print(page, frame_json(*frame), style);
  }
  if (const auto rest = end_of(cutter)) {
    page.flaw(*rest);
    print(page, {{"offset", rest->offset}, {"kind", "no frame"}, {"reason", rest->reason}}, style);
  }
}

void dump(const Settings& settings, const Options& options) {
  std::string bytes = file_bytes(settings.file);
  if (settings.hex) bytes = bytes_from_hex(bytes);
  const bool frames = settings.frames || (!settings.block && are_frames(bytes));
  DumpPage page(bytes, Output::get().data_colors());
  if (frames) {
    show_frames(bytes, options.json, page);
  } else {
    page.block(bytes);
    print(page, to_json(read_block(bytes)), options.json);
  }
  const std::optional<Flaw>& flaw = page.first_flaw();
  if (!flaw) return;
  const std::string name = settings.file == kStandardInput ? "standard input" : settings.file;
  throw Failure(Exit::failed,
                fmt::format("{}: no well-formed {}: at byte {}: {}", name,
                            frames ? "frames" : "block", flaw->offset, flaw->reason),
                hint_for(bytes, settings, frames));
}

}  // namespace

void add_dump(CLI::App& app, Options& options) {
  CLI::App& command = *app.add_subcommand(
      "dump", "Show a block, or the frames of a connection, record by record with their offsets");
  const auto settings = std::make_shared<Settings>();
  command.add_option("FILE", settings->file, "What to read; standard input if it is - or missing")
      ->type_name("");
  CLI::Option* const block =
      command.add_flag("--block", settings->block, "It is a block; found out if not said");
  command.add_flag("--frames", settings->frames, "It is frames; found out if not said")
      ->excludes(block);
  command.add_flag("--hex", settings->hex,
                   "It is written in hexadecimal digits, with comments from # on");
  add_json_flag(command, options);
  add_output_flags(command, options);
  add_examples(
      command,
      "  echo '00 07 00 00 00 05 00 00 00' | tolk dump --hex\n"
      "  echo '09 00 00 00 00 07 00 00 00 05 00 00 00' | tolk dump --hex --frames --json=short");
  command.callback([settings, &options] { dump(*settings, options); });
}

}  // namespace tolk::tool
