#include "channels/internal/paramDefs.h"

#include "channels/common.h"
#include "channels/exception.h"
#include "lib/log/log.h"
#include "lib/misc/iniValues.h"
#include "lib/misc/profileFile.h"

#include <cctype>
#include <set>
#include <strings.h>

namespace channels {

namespace {

struct TypeName {
    const char* name;
    int code;
};
constexpr TypeName kTypeNames[] = {{"int", kParamInt},
                                   {"bool", kParamBool},
                                   {"string", kParamString},
                                   {"double", kParamDouble},
                                   {"file", kParamFile}};

// "A|*.a" becomes "A", NUL, "*.a", NUL, and one more NUL ends the list.
std::string convertFileFilters(const std::string& filters) {
    std::string converted = filters;
    for (char& c : converted)
        if (c == '|')
            c = '\0';
    converted += '\0';
    return converted;
}

} // namespace

int lookupParamType(const std::string& typeName) {
    for (const TypeName& type : kTypeNames)
        if (::strcasecmp(type.name, typeName.c_str()) == 0)
            return type.code;
    return -1;
}

void loadParamDefTable(const std::string& configFilename, ParamDefTable& table,
                       const std::string& sectionNameStem) {
    auto& group = pluginLoadGroup();
    PELSU_LOG(group, "Loading paramDef table: configFilename="
                         << configFilename << " ; sectionNameStem=" << sectionNameStem);
    profile::WriteBatch snapshot(configFilename);
    std::set<std::string> names;
    for (int index = 1;; ++index) {
        const std::string section = sectionNameStem + std::to_string(index);
        const std::string name = profile::readIniString(configFilename, section, "Name");
        if (name.empty())
            break;
        PELSU_LOG(group, "Found next param: name=" << name);
        const std::string typeText = profile::readIniString(configFilename, section, "Type");
        if (typeText.empty())
            throw Exception("Missing type for parameter '" + name + "'");
        const int type = lookupParamType(typeText);
        if (type == -1)
            throw Exception("Invalid type for parameter '" + name + "': " + typeText);
        if (!names.insert(name).second)
            throw Exception("Duplicate parameter name: '" + name + "'");
        auto definition = std::make_unique<ParamDef>();
        definition->name = name;
        definition->type = type;
        definition->defaultValue = profile::readIniString(configFilename, section, "DefaultValue");
        definition->description = profile::readIniString(configFilename, section, "Description");
        PELSU_LOG(group, "Saving paramDef: name=" << name << " ; type=" << type);
        if (type == kParamFile) {
            definition->defaultFileExtn =
                profile::readIniString(configFilename, section, "DefaultFileExtn");
            definition->fileFilters =
                convertFileFilters(profile::readIniString(configFilename, section, "FileFilters"));
        }
        table.push_back(std::move(definition));
    }
}

void loadParamValues(const std::string& configFilename, const std::string& sectionName,
                     const ParamDefTable& table, ParamValues& values) {
    auto& group = pluginLoadGroup();
    PELSU_LOG(group, "Loading paramValues: configFilename=" << configFilename
                                                            << " ; sectionName=" << sectionName);
    profile::WriteBatch snapshot(configFilename);
    for (const auto& definition : table) {
        const std::string value = profile::readIniString(
            configFilename, sectionName, definition->name, definition->defaultValue);
        PELSU_LOG(group, "Loaded paramater value: sectionName=" << sectionName << " ; paramName="
                                                                << definition->name
                                                                << " ; val=" << value);
        values.emplace(definition->name, value);
    }
}

void saveParamValues(const std::string& configFilename, const std::string& sectionName,
                     const ParamValues& values) {
    profile::WriteBatch batch(configFilename);
    for (const auto& [name, value] : values)
        profile::writeIniString(configFilename, sectionName, name, value);
    if (!batch.commit())
        throw Exception(profile::lastWriteError());
}

std::string pluginIdentity(const std::string& appPluginId, const std::string& pluginFile) {
    std::string id = appPluginId;
    if (id.empty()) {
        std::string name = pluginFile;
        const size_t slash = name.find_last_of("/\\");
        if (slash != std::string::npos)
            name = name.substr(slash + 1);
        const size_t dot = name.rfind('.');
        id = dot == std::string::npos ? name : name.substr(0, dot);
    }
    for (char& c : id)
        if (std::isspace(static_cast<unsigned char>(c)) ||
            !std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    return id;
}

} // namespace channels
