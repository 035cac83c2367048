// `tolk dump`: shows a block or frames, record by record.
#include <fmt/format.h>

#include <cctype>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/system/file_bytes.h"
#include "tools/tolk/text/dump_page.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/printable.h"
#include "tools/tolk/text/record_json.h"
#include "tools/tolk/wire/frame_cutter.h"

namespace tolk::tool {
namespace {

struct DumpOptions {
  std::string file = kStandardInput;
  bool block = false;
  bool frames = false;
  bool hex = false;
};

bool is_in(const char* set, char character) {
  return character != '\0' && std::strchr(set, character) != nullptr;
}

// Reads two hexadecimal digits for each byte. Blanks may stand anywhere; # begins a comment, which
// ends with the line.
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
                    fmt::format("not a hexadecimal digit: {}", printable({&character, 1})), kHint);
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

// All bytes of the input are in memory already, so frames of any size are kept.
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

// What to try with bytes that are neither frames nor a block.
std::string hint_for(const std::string& bytes, const DumpOptions& settings, bool frames) {
  if (!settings.hex && is_hex(bytes)) return "give --hex, as they look like hexadecimal digits";
  if (bytes.starts_with("\x0a\x0d\x0d\x0a")) return "open it with Wireshark, it is a capture";
  if (settings.frames || settings.block) return "check whether the option says what the input is";
  return fmt::format("say what it is with {}", frames ? "--block" : "--frames");
}

// Detects what the input is. If it is well formed as neither frames nor a block, it counts as
// frames if it begins with a frame.
bool are_frames(std::string_view bytes) {
  FrameCutter cutter = cutter_of(bytes);
  bool any = false;
  bool good = true;
  while (const auto frame = cutter.next()) {
    const DecodedBlock block = decode_block(frame->payload());
    if (!any && block.flaw && block.records.empty()) return false;
    any = true;
    if (block.flaw) good = false;
  }
  if (!any) return false;
  return (good && !end_of(cutter)) || decode_block(bytes).flaw.has_value();
}

Json frame_json(const FrameCutter::CutFrame& frame) {
  const Message message = decode_message(frame.payload());
  Json json = {{"offset", frame.offset}, {"kind", to_string(message.kind)}};
  if (!message.method.empty()) json["method"] = text_to_json(message.method);
  if (message.token) json["token"] = text_to_json(*message.token);
  add_content(json, message);
  json["bytes"] = frame.size;
  return json;
}

// Making the text also finds the flaws, so it is made even if JSON is printed.
void print(DumpPage& page, const Json& json, JsonStyle style) {
  const std::string text = page.take();
  Output::get().data(style == JsonStyle::off ? text : text_of(json, style) + "\n");
}

void show_frames(std::string_view bytes, JsonStyle style, DumpPage& page) {
  FrameCutter cutter = cutter_of(bytes);
  std::size_t number = 0;
  while (auto frame = cutter.next()) {
    // The cutter returns parts of its own copy, but offsets count in the input.
    frame->bytes = bytes.substr(static_cast<std::size_t>(frame->offset), frame->bytes.size());
    page.frame(++number, *frame);
    print(page, frame_json(*frame), style);
  }
  if (const auto rest = end_of(cutter)) {
    page.flaw(*rest);
    print(page, {{"offset", rest->offset}, {"kind", "no frame"}, {"reason", rest->reason}}, style);
  }
}

void dump(const DumpOptions& settings, const CommonOptions& options) {
  std::string bytes = file_bytes(settings.file);
  if (settings.hex) bytes = bytes_from_hex(bytes);
  const bool frames = settings.frames || (!settings.block && are_frames(bytes));
  DumpPage page(bytes, Output::get().data_colors());
  if (frames) {
    show_frames(bytes, options.json, page);
  } else {
    page.block(bytes);
    print(page, to_json(decode_block(bytes)), options.json);
  }
  const std::optional<Flaw>& flaw = page.first_flaw();
  if (!flaw) return;
  throw Failure(Exit::failed,
                fmt::format("{}: not {}: at byte {}: {}", shown_file(settings.file),
                            frames ? "well-formed frames" : "a well-formed block", flaw->offset,
                            flaw->reason),
                hint_for(bytes, settings, frames));
}

}  // namespace

void add_dump(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand(
      "dump", "Show a block, or the frames of a connection, record by record with their offsets");
  const auto settings = std::make_shared<DumpOptions>();
  command
      .add_option("FILE", settings->file, "What to read; standard input if it is - or not given")
      ->type_name("");
  CLI::Option* const block =
      command.add_flag("--block", settings->block, "The input is a block; detected if not given");
  command.add_flag("--frames", settings->frames, "The input is frames; detected if not given")
      ->excludes(block);
  command.add_flag("--hex", settings->hex, "The input is hexadecimal digits; # begins a comment");
  add_json_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  echo '00 07 00 00 00 05 00 00 00' | tolk dump --hex\n"
               "  echo '09 00 00 00 00 07 00 00 00 05 00 00 00' | tolk dump --hex --frames --json");
  command.callback([settings, &options] { dump(*settings, options); });
}

}  // namespace tolk::tool
