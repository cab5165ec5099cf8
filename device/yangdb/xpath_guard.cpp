// Which XPath expressions may reach libyang (see XPathEvaluable in
// device/yangdb.hpp). libyang evaluates "mod" on the integers of its
// operands: a zero divisor, or the integer of NaN modulo -1, raises SIGFPE
// and ends the process. No path of the switch's models needs the operator,
// so an expression using it is refused before evaluation.
//
// The scan follows XPath 1.0's lexical rule: a name in a place where an
// operator may stand (after an operand: a name, "*", a literal, a number,
// ".", "..", a variable, ")" or "]") is an operator name. libyang takes
// "mod" there without looking at what follows, so "*modQ" is refused too.
#include "device/yangdb.hpp"

#include <cctype>

namespace device::yangdb {

namespace {

bool NameStart(char c)
{
    return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool NameChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
}

}  // namespace

bool XPathEvaluable(std::string_view expr, std::string *why)
{
    bool afterOperand = false;  // an operator may stand here
    size_t i = 0;
    while (i < expr.size()) {
        const char c = expr[i];
        if (std::isspace(static_cast<unsigned char>(c)) != 0) {
            i++;
            continue;
        }
        if (afterOperand && expr.substr(i, 3) == "mod") {
            *why = "the XPath operator mod is not supported";
            return false;
        }
        if (c == '\'' || c == '"') {
            const size_t close = expr.find(c, i + 1);
            i = close == std::string_view::npos ? expr.size() : close + 1;
            afterOperand = true;
        } else if (NameStart(c)) {
            size_t end = i + 1;
            while (end < expr.size() && (NameChar(expr[end]) || (expr[end] == ':' && end + 1 < expr.size() &&
                                                                  expr[end + 1] != ':'))) {
                end++;
            }
            // An operator name (and, or, div) where an operator may stand;
            // otherwise a name test, an axis or a function name.
            afterOperand = !afterOperand;
            i = end;
        } else if (std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '.') {
            while (i < expr.size() && (std::isdigit(static_cast<unsigned char>(expr[i])) != 0 || expr[i] == '.')) {
                i++;
            }
            afterOperand = true;
        } else if (c == '$') {
            i++;
            while (i < expr.size() && (NameChar(expr[i]) || expr[i] == ':')) {
                i++;
            }
            afterOperand = true;
        } else if (c == '*') {
            afterOperand = !afterOperand;  // a multiplication or a name test
            i++;
        } else {
            afterOperand = c == ')' || c == ']';
            i++;
        }
    }
    return true;
}

}  // namespace device::yangdb
