// Typed parameter definitions of plugins and the values that plugins and channels keep.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace channels {

// The stored codes of the parameter types; -1 is an unknown type.
enum ParamType : int {
    kParamInt = 1,
    kParamBool = 2,
    kParamString = 3,
    kParamDouble = 4,
    kParamFile = 5,
};

struct ParamDef {
    std::string name;
    int type = kParamString;
    std::string defaultValue;
    std::string description;
    std::string defaultFileExtn; // file parameters only
    std::string fileFilters;     // file parameters only: the parts separated by NULs,
                                 // ending with an extra NUL
    bool operator==(const ParamDef&) const = default;
};

// Definitions in the order of their section numbers.
using ParamDefTable = std::vector<std::unique_ptr<ParamDef>>;
// Values by parameter name, ordered byte-wise.
using ParamValues = std::map<std::string, std::string>;

// The code of a type name ("int", "bool", "string", "double", "file", ignoring case), or -1.
int lookupParamType(const std::string& typeName);

// Appends the definitions of the sections stem1, stem2, ... (ending at the first section
// without a name). Throws channels::Exception on a missing or unknown type or a name used twice.
void loadParamDefTable(const std::string& configFilename, ParamDefTable& table,
                       const std::string& sectionNameStem);
// Adds one value per definition: the stored one, else the definition's default.
void loadParamValues(const std::string& configFilename, const std::string& sectionName,
                     const ParamDefTable& table, ParamValues& values);
// Writes every value as a key of the section (the file is written once).
void saveParamValues(const std::string& configFilename, const std::string& sectionName,
                     const ParamValues& values);

// A plugin's identity: "AppPluginId" when given, else the base name of its "Plugin" file;
// every character that is not a letter or digit becomes "_".
std::string pluginIdentity(const std::string& appPluginId, const std::string& pluginFile);

} // namespace channels
