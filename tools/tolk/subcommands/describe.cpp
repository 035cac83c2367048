// tolk describe: the methods of a server.
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>

#include "tools/tolk/command/connect.h"
#include "tools/tolk/command/failure.h"
#include "tools/tolk/command/flags.h"
#include "tools/tolk/subcommands/subcommands.h"
#include "tools/tolk/text/colored_json.h"
#include "tools/tolk/text/output.h"
#include "tools/tolk/text/printable.h"
#include "tools/tolk/text/signature.h"

namespace tolk::tool {
namespace {

std::vector<MethodInfo> as_shown(const std::vector<MethodInfo>& methods) {
  std::vector<MethodInfo> shown;
  shown.reserve(methods.size());
  for (const auto& [name, signature, about] : methods) {
    shown.push_back({harmless(name), harmless(signature), harmless(about)});
  }
  return shown;
}

using Names = std::map<std::string, std::string>;

// Names for the structs that are written several times: their text is shown once. A signature of
// another form is left as it is.
std::vector<std::pair<std::string, Type>> name_structs(const std::vector<MethodInfo>& methods,
                                                       Names& names) {
  std::map<std::string, int> counts;
  std::vector<std::pair<std::string, Type>> all;
  for (const MethodInfo& method : methods) {
    const auto signature = signature_in(method.signature);
    if (!signature) continue;
    for (const Type& each : structs_of(*signature)) {
      const std::string text = each.text();
      if (++counts[text] != 2) continue;
      names[text] = "T" + std::to_string(names.size() + 1);
      all.emplace_back(names[text], each);
    }
  }
  return all;
}

// The text on lines of at most so many columns, where it has blanks; further ones are indented.
std::string wrapped(const std::string& text, std::size_t columns, std::size_t indent) {
  std::string lines;
  std::size_t begin = 0;
  while (columns > 2 * indent && text.size() - begin > columns - (begin == 0 ? 0 : indent)) {
    const std::size_t room = columns - (begin == 0 ? 0 : indent);
    std::size_t end = text.rfind(' ', begin + room);
    while (end != std::string::npos && end > begin && text[end - 1] == ':') {
      end = text.rfind(' ', end - 1);  // a parameter stays with its type
    }
    if (end == std::string::npos || end <= begin) end = text.find(' ', begin + room);
    if (end == std::string::npos) break;
    lines += text.substr(begin, end - begin) + "\n" + std::string(indent, ' ');
    begin = end + 1;
  }
  return lines + text.substr(begin);
}

constexpr std::size_t kIndent = 4;

// Further lines of a text are as far to the right as the first one.
std::string indented(std::string text) {
  for (std::size_t at = 0; (at = text.find('\n', at)) != std::string::npos; at += kIndent + 1) {
    text.insert(at + 1, kIndent, ' ');
  }
  return text;
}

// The first word in a colour.
std::string with_name(const std::string& name, const std::string& rest, std::size_t columns) {
  const Colors& c = Output::get().data_colors();
  const std::string text = wrapped(name + rest, columns, kIndent);
  return fmt::format("{}{}{}{}", c.name, name, c.off, text.substr(name.size()));
}

// A description stands beside its method if there is room for all of them there, otherwise below.
std::string lines_of(std::vector<MethodInfo> methods) {
  const Colors& c = Output::get().data_colors();
  Names names;
  const auto structs = name_structs(methods, names);
  std::size_t width = 0;
  std::size_t widest_about = 0;
  for (MethodInfo& method : methods) {
    if (const auto known = signature_in(method.signature)) method.signature = known->text(names);
    width = std::max(width, method.name.size() + method.signature.size());
    widest_about = std::max(widest_about, method.about.size());
  }
  const auto columns = static_cast<std::size_t>(Output::get().data_columns());
  const bool fits = columns == 0 || width + 2 + widest_about <= columns;
  std::string lines;
  for (const auto& [name, signature, about] : methods) {
    lines += with_name(name, signature, columns);
    if (!about.empty()) {
      const std::size_t gap = width + 2 - name.size() - signature.size();
      lines += fits ? std::string(gap, ' ') : "\n" + std::string(kIndent, ' ');
      const std::string text = fits ? about : wrapped(about, columns - kIndent, 0);
      lines += fmt::format("{}{}{}", c.dim, indented(text), c.off);
    }
    lines += "\n";
  }
  for (const auto& [name, type] : structs) {
    names.erase(type.text());
    lines += with_name(name, " = " + type.text(names), columns) + "\n";
    names[type.text()] = name;
  }
  return lines;
}

Json json_of(const std::vector<MethodInfo>& methods) {
  Json all = Json::array();
  for (const auto& [name, signature, about] : methods) {
    all.push_back({{"name", name}, {"signature", signature}, {"about", about}});
  }
  return all;
}

void run(const std::string& address, const CommonOptions& options) {
  Client& client = connect_to(address, "describe", options);
  const auto methods = client.describe();
  if (!methods && methods.error().code() == Errc::no_such_method) {
    throw Failure(
        Exit::no_such_method,
        "describe at " + client.address() + ": the server does not list its methods",
        "call the methods whose names you know; servers made with the C++ layer list theirs");
  }
  if (!methods) throw failure_of(unnamed(methods.error()), "describe");
  Output& output = Output::get();
  if (methods->empty()) output.note(client.address() + " lists no methods");
  if (options.json == JsonStyle::off) {
    output.data(lines_of(as_shown(*methods)));
  } else {
    print_json(json_of(*methods), options.json);
  }
}

}  // namespace

void add_describe(CLI::App& app, CommonOptions& options) {
  CLI::App& command = *app.add_subcommand("describe", "Print the methods that a server offers");
  const auto address = std::make_shared<std::string>();
  add_address(command, *address);
  add_json_flag(command, options);
  add_timeout_flag(command, options);
  add_output_flags(command, options);
  add_examples(command,
               "  tolk describe pipe:5000\n"
               "  tolk describe 5000 --pretty");
  command.callback([address, &options] { run(*address, options); });
}

}  // namespace tolk::tool
