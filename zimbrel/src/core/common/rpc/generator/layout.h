// Parts of the output whose line breaks depend on the lengths of names. The
// breaks are where clang-format puts them for Google's style, so that
// formatting the output changes nothing.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_LAYOUT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_LAYOUT_H_

#include <cstddef>
#include <string>
#include <vector>

namespace orvane::generator {

// The head of a function: "`type` `name`(`parameters`)`end`".
std::string Declaration(std::size_t indent, const std::string& type,
                        const std::string& name,
                        const std::vector<std::string>& parameters,
                        const std::string& end);

// A call as a statement: "`function`(`arguments`);".
std::string Call(std::size_t indent, const std::string& function,
                 const std::vector<std::string>& arguments);

// "`left` = `right`;"
std::string Assignment(std::size_t indent, const std::string& left,
                       const std::string& right);

// The lines as a comment, each with a newline.
std::string Comment(std::size_t indent, const std::vector<std::string>& lines);

// "// `title` -----" up to the margin.
std::string Ruler(std::size_t indent, const std::string& title);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_LAYOUT_H_
