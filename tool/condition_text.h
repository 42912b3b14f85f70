#pragma once

#include <string>
#include <vector>

namespace corvi::tool {

/// One piece of a condition's text. Put together again, mark before text, the pieces are the condition.
struct ConditionPiece {
    char mark = 0;  ///< before a name: '%' environment, '&' '!' feature states, '$' '?' component states
    std::string text;
    bool name = false;  ///< a property, variable, feature or component; else operators, literals, blanks
};
std::vector<ConditionPiece> ConditionPieces(const std::string& condition);

/// The properties that a condition asks for.
std::vector<std::string> PropertiesInCondition(const std::string& condition);

/// True for letters, digits, underscore and period.
bool IsPropertyNamePart(char c);

/// True for a property that the installer itself sets or passes on, and for what authors write by mistake
/// where they mean one.
bool IsStandardProperty(const std::string& name);

/// True for a property that the package's compiler names ("WIX_UPGRADE_DETECTED"): no user gives it.
bool IsCompilersProperty(const std::string& name);

/// True for a property whose name has no lower-case letter: one that a user can set.
bool IsPublicProperty(const std::string& name);

}  // namespace corvi::tool
