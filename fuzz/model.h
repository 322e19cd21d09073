#ifndef ARSP_FUZZ_MODEL_H
#define ARSP_FUZZ_MODEL_H

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/* What the commands do to the database and to the mail tree, stated a second time and without either. */

namespace arsp {

/* The attachments' files and directories. A path begins with a slash; the root of the mail names is "". */
class ModelTree {
public:
    struct Entry {
        char kind; /* 'd' directory, 'f' file, 'l' symbolic link */
        std::string content;
        bool of_mail_user;
    };
    enum class Found { entry, missing, refused, outside };

    /* Resolves `path` as the tool does and sets `place` to the entry's path; or to as much of it as exists. */
    Found find(std::string_view path, std::string &place) const
    {
        place.clear();
        while (!path.empty()) {
            const std::string name(path.substr(0, path.find('/')));
            path.remove_prefix(std::min(name.size() + 1, path.size()));
            if (!isA('d', place) || name.size() > NAME_MAX)
                return Found::refused;
            if (name == ".." && place.empty())
                return Found::outside;
            if (name == "..")
                place.resize(place.rfind('/'));
            else if (!name.empty() && name != ".")
                place += "/" + name;
            if (!entries_.contains(place))
                return Found::missing;
        }
        return Found::entry;
    }

    bool isA(char kind, const std::string &place) const
    {
        const auto entry = entries_.find(place);
        return entry != entries_.end() && entry->second.kind == kind;
    }
    bool contains(const std::string &place) const { return entries_.contains(place); }
    void make(const std::string &place, const Entry &entry) { entries_.insert_or_assign(place, entry); }
    void remove(const std::string &place) { entries_.erase(place); }

    void makeDirectories(std::string_view path)
    {
        std::string place;
        while (find(path, place) == Found::missing)
            make(place, {'d', "", true});
    }

    /* Writes a file as root. An existing one keeps its owner. */
    void copyTo(const std::string &place, const std::string &content)
    {
        entries_.try_emplace(place, Entry{'f', "", false}).first->second.content = content;
    }

    void giveToMailUser(const std::string &place) { entries_.at(place).of_mail_user = true; }

    void removeBelow(const std::string &place)
    {
        std::erase_if(entries_, [&](const auto &entry) { return entry.first.starts_with(place + "/"); });
    }

    const std::map<std::string, Entry> &entries() const { return entries_; }

private:
    std::map<std::string, Entry> entries_ = {{"", {'d', "", true}}};
};

/* The columns of an autoresponder, in the order of the table. */
enum Column {
    MN,
    KEYSTR,
    KEY_WHERE,
    SUBJECT,
    REPLY_TO,
    FORWARD_TO,
    CONTENT_TYPE,
    CHARSET,
    BODY,
    ANS_FREQ,
    ANS_LIMIT,
    REAL_OWNER,
    COLUMNS
};
using AutoresponderValues = std::array<std::string, COLUMNS>;

/* One database file. It may be unlinked while the mail side has it open. */
struct ModelDatabase {
    bool has_tables = true;
    std::map<std::string, AutoresponderValues> autoresponder;
    std::set<std::pair<std::string, std::string>> attachments;
    std::map<std::pair<std::string, std::string>, std::pair<int, int>> resp_freq;
    std::vector<std::pair<std::string, std::string>> extra_headers;

    /* The rows of all tables: "|" follows each value, a line feed each row. */
    std::string text() const
    {
        std::string rows;
        for (const auto &[mn, values] : autoresponder) {
            for (const std::string &value : values)
                rows += value + "|";
            rows += "\n";
        }
        rows += "attachments\n";
        for (const auto &[mn, filename] : attachments)
            rows += mn + "|" + filename + "|\n";
        rows += "resp_freq\n";
        for (const auto &[key, counter] : resp_freq)
            rows += key.first + "|" + key.second + "|" + std::to_string(counter.first) + "|" +
                    std::to_string(counter.second) + "|\n";
        rows += "extra_headers\n";
        for (const auto &[name, value] : extra_headers)
            rows += name + "|" + value + "|\n";
        return rows;
    }
};

/* How a command ends: its status and the beginnings of its records. */
struct Expected {
    int status = 0;
    std::vector<std::string> records;
};

struct Model {
    std::shared_ptr<ModelDatabase> database = std::make_shared<ModelDatabase>();
    ModelTree tree;

    Expected initDb()
    {
        database = std::make_shared<ModelDatabase>();
        return {};
    }

    Expected setResp(const AutoresponderValues &values)
    {
        if (!database->has_tables)
            return NOT_PREPARED;
        database->autoresponder[values[MN]] = values;
        return {};
    }

    Expected delResp(const std::string &mn)
    {
        if (!database->has_tables)
            return {1, {NOT_PREPARED.records[0], "Error removing attachments for mailname (" + mn + ")"}};
        std::erase_if(database->attachments, [&](const auto &row) { return row.first == mn; });
        std::erase_if(database->resp_freq, [&](const auto &row) { return row.first.first == mn; });
        database->autoresponder.erase(mn);
        std::string place;
        if (tree.find(attachmentDir(mn), place) != ModelTree::Found::entry)
            return {0, {"Unable to remove autoresponder attachments: "}};
        tree.removeBelow(place);
        return {};
    }

    /* `content` is that of a regular file, or missing. */
    Expected addAttach(const std::string &mn, const std::string &filename, const std::string &source,
                       const std::optional<std::string> &content)
    {
        if (const Expected found = findOwner(mn); found.status != 0)
            return found;
        const Expected not_moved = {1, {"Unable to move attachment " + source + " to "}};
        const std::string owner = database->autoresponder.at(mn)[REAL_OWNER];
        const std::string dir = attachmentDir(owner);
        const std::string name = filename.substr(filename.rfind('/') + 1);
        const std::string name_below = "/" + source.substr(source.rfind('/') + 1);
        if (owner.find_first_of(SHELL) != std::string::npos || dir.find("/../") != std::string::npos)
            return not_moved;
        std::string target;
        if (tree.find(dir + "/" + name, target) == ModelTree::Found::entry &&
            (tree.isA('l', target) || tree.isA('l', target + name_below)))
            return not_moved;
        tree.makeDirectories(dir);
        const ModelTree::Found found = tree.find(dir + "/" + name, target);
        const std::string copy = target + (tree.isA('d', target) ? name_below : "");
        if (!content || name.find_first_of(SHELL) != std::string::npos || found == ModelTree::Found::refused ||
            tree.isA('d', copy))
            return not_moved;
        tree.copyTo(copy, *content);
        tree.giveToMailUser(target);
        database->attachments.emplace(mn, name);
        return {};
    }

    /* Returns nothing, and changes nothing, when the file may be outside the mail tree. */
    std::optional<Expected> delAttach(const std::string &mn, const std::string &filename)
    {
        if (const Expected found = findOwner(mn); found.status != 0)
            return found;
        const std::string path = attachmentDir(mn) + "/" + filename;
        const std::size_t end = path.find_last_not_of('/') + 1;
        const std::size_t slash = path.rfind('/', end - 1);
        const std::string name = path.substr(slash + 1, end - slash - 1);
        std::string place;
        const ModelTree::Found found = tree.find(path.substr(0, slash), place);
        if (found == ModelTree::Found::outside)
            return std::nullopt;
        database->attachments.erase({mn, filename});
        const Expected not_deleted = {1, {"Unable to delete attachment "}};
        if (MAIL_ROOT_LENGTH + path.size() >= PATH_MAX)
            return not_deleted;
        if (found == ModelTree::Found::missing)
            return Expected();
        if (found == ModelTree::Found::refused || !tree.isA('d', place) || name == "." || name == ".." ||
            name.size() > NAME_MAX)
            return not_deleted;
        place += "/" + name;
        if (!tree.contains(place))
            return Expected();
        if (tree.isA('d', place) || end < path.size())
            return not_deleted;
        tree.remove(place);
        return Expected();
    }

    /* Without `headers` the document is malformed. */
    Expected setExtraHeaders(const std::optional<std::vector<std::pair<std::string, std::string>>> &headers)
    {
        if (!database->has_tables)
            return {1, {"Unable to remove autoresponder extra headers: "}};
        database->extra_headers = headers.value_or(decltype(database->extra_headers)());
        if (!headers)
            return {1, {"Unable to parse auto-reply headers json: "}};
        return {};
    }

    static std::string attachmentDir(const std::string &address)
    {
        const std::size_t at = address.find('@'); /* npos + 1 is 0 */
        return "/" + address.substr(at + 1) + "/" + address.substr(0, at) + "/@attachments";
    }

private:
    static constexpr char SHELL[] = "\"$`\\";
    static constexpr std::size_t MAIL_ROOT_LENGTH = std::string_view("/var/qmail/mailnames").size();
    inline static const Expected NOT_PREPARED = {1, {"Unable to prepare SQL statement for query '"}};

    /* What both commands on attachments do first. */
    Expected findOwner(const std::string &mn) const
    {
        if (!database->has_tables)
            return NOT_PREPARED;
        if (!database->autoresponder.contains(mn))
            return {1, {"No autoresponder found for mailname (" + mn + ")"}};
        return {};
    }
};

} // namespace arsp

#endif
