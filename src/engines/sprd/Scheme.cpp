#include "engines/sprd/Scheme.h"

#include <tinyxml2.h>

#include <cctype>
#include <cstring>

namespace quorvel::sprd {
namespace {

using tinyxml2::XMLElement;

bool Same(const char* a, const char* b) {
    return a && b && ::strcasecmp(a, b) == 0;
}

const XMLElement* Child(const XMLElement* e, const char* name) {
    if (!e) return nullptr;
    for (const XMLElement* c = e->FirstChildElement(); c; c = c->NextSiblingElement())
        if (Same(c->Name(), name)) return c;
    return nullptr;
}

template <typename F>
void EachChild(const XMLElement* e, const char* name, F f) {
    if (!e) return;
    for (const XMLElement* c = e->FirstChildElement(); c; c = c->NextSiblingElement())
        if (Same(c->Name(), name)) f(c);
}

const char* Attr(const XMLElement* e, const char* name) {
    if (!e) return nullptr;
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a; a = a->Next())
        if (Same(a->Name(), name)) return a->Value();
    return nullptr;
}

std::string Trim(const char* s) {
    if (!s) return "";
    std::string_view v(s);
    while (!v.empty() && std::isspace(static_cast<unsigned char>(v.front()))) v.remove_prefix(1);
    while (!v.empty() && std::isspace(static_cast<unsigned char>(v.back()))) v.remove_suffix(1);
    return std::string(v);
}

// A value given as an attribute or as a child element's text.
std::string Value(const XMLElement* e, const char* name) {
    if (const char* a = Attr(e, name)) return Trim(a);
    if (const XMLElement* c = Child(e, name)) return Trim(c->GetText());
    return "";
}

bool ReadNumber(const XMLElement* e, const char* name, std::uint64_t& value, bool& present) {
    const std::string text = Value(e, name);
    present = !text.empty();
    return !present || ParseNumber(text, value);
}

std::string NameOf(const XMLElement* e) {
    std::string n = Value(e, "name");
    return n.empty() ? Value(e, "id") : n;
}

bool ReadEntry(const XMLElement* f, std::size_t index, SchemeEntry& out, std::string& error) {
    const std::string where = "download scheme entry " + std::to_string(index + 1);
    out.id = Value(f, "ID");
    if (out.id.empty()) {
        error = where + " has no ID";
        return false;
    }
    out.alias = Value(f, "IDAlias");
    out.type = Value(f, "Type");
    std::uint64_t n = 0;
    bool present = false;
    if (!ReadNumber(f, "Flag", n, present) || n > 0xFF) {
        error = "download scheme entry " + out.id + ": Flag is not a number";
        return false;
    }
    out.flag = present ? static_cast<int>(n) : 1;
    n = 0;
    if (!ReadNumber(f, "CheckFlag", n, present) || n > 0xFF) {
        error = "download scheme entry " + out.id + ": CheckFlag is not a number";
        return false;
    }
    out.checkFlag = present ? static_cast<int>(n) : 1;
    const XMLElement* block = Child(f, "Block");
    if (block) {
        out.block = Trim(Attr(block, "id"));
        bool hasBase = false, hasSize = false;
        if (!ReadNumber(block, "Base", out.base, hasBase) || !ReadNumber(block, "Size", out.size, hasSize)) {
            error = "download scheme entry " + out.id + ": Block's Base or Size is not a number";
            return false;
        }
        out.addressed = out.block.empty() && hasBase;
        if (out.base > 0xFFFFFFFF || (out.addressed && out.size > 0xFFFFFFFF)) {
            error = "download scheme entry " + out.id + ": Block address or size beyond 32 bits";
            return false;
        }
    }
    if (out.block.empty() && !out.addressed && (out.flag != 0 || out.IsErase())) {
        error = "download scheme entry " + out.id + " has no Block (neither a partition id nor a Base address)";
        return false;
    }
    return true;
}

}  // namespace

bool SchemeEntry::IsErase() const {
    return ::strncasecmp(type.c_str(), "EraseFlash", 10) == 0;
}

bool ParseNumber(std::string_view text, std::uint64_t& value) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > (base == 16 ? 16u : 19u)) return false;
    std::uint64_t v = 0;
    for (char c : text) {
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return false;
        v = v * static_cast<unsigned>(base) + static_cast<unsigned>(d);
    }
    value = v;
    return true;
}

bool ReadScheme(std::string_view xml, const std::string& productName, Scheme& out, std::string& error) {
    out = Scheme{};
    tinyxml2::XMLDocument doc;
    if (doc.Parse(xml.data(), xml.size()) != tinyxml2::XML_SUCCESS) {
        error = std::string("the package's configuration is not readable XML (") + doc.ErrorName() + ")";
        return false;
    }
    const XMLElement* root = doc.RootElement();
    if (!root || !Same(root->Name(), "BMAConfig")) {
        error = "the package's configuration has no BMAConfig root";
        return false;
    }

    // The product: the one named, else the only (or first) one.
    std::vector<const XMLElement*> products;
    EachChild(Child(root, "ProductList"), "Product", [&](const XMLElement* p) { products.push_back(p); });
    const XMLElement* product = nullptr;
    for (const XMLElement* p : products)
        if (!productName.empty() && Same(NameOf(p).c_str(), productName.c_str())) product = p;
    if (!product && !products.empty()) product = products.front();
    if (product) {
        out.product = NameOf(product);
        EachChild(Child(product, "NVBackup"), "NVItem", [&](const XMLElement* item) {
            if (!error.empty()) return;
            std::uint64_t flag = 1;
            bool present = false;
            if (!ReadNumber(item, "backup", flag, present)) flag = 1;
            std::uint64_t id = 0;
            if (!ReadNumber(item, "ID", id, present) || !present || id > 0xFFFF) {
                error = "NV item " + NameOf(item) + " of product " + out.product + " has no usable ID";
                return;
            }
            if (flag != 0) out.nvItems.push_back({NameOf(item), static_cast<std::uint32_t>(id)});
        });
        EachChild(Child(product, "Partitions"), "Partition", [&](const XMLElement* part) {
            if (!error.empty()) return;
            const std::string id = Trim(Attr(part, "id"));
            std::uint64_t size = 0;
            bool present = false;
            if (id.empty() || !ReadNumber(part, "size", size, present) || !present || size > 0xFFFFFFFF) {
                error = "partition " + (id.empty() ? std::string("without id") : id) + " of product " + out.product +
                        " has no usable size";
                return;
            }
            out.partitions.push_back({id, static_cast<std::uint32_t>(size)});
        });
        if (!error.empty()) return false;
    }

    // The scheme: the only one; else the one the product names, or named like the product.
    std::vector<const XMLElement*> schemes;
    EachChild(Child(root, "SchemeList"), "Scheme", [&](const XMLElement* s) { schemes.push_back(s); });
    if (schemes.empty()) {
        error = "the package's configuration has no SchemeList/Scheme";
        return false;
    }
    const XMLElement* scheme = nullptr;
    if (schemes.size() == 1) {
        scheme = schemes.front();
        out.choice = "the package's only download scheme";
    } else {
        const std::string wanted = product ? Value(product, "SchemeName") : "";
        for (const std::string& name : {wanted, out.product, productName}) {
            if (name.empty() || scheme) continue;
            for (const XMLElement* s : schemes)
                if (!scheme && Same(NameOf(s).c_str(), name.c_str())) scheme = s;
        }
        if (!scheme) {
            error = "the package has " + std::to_string(schemes.size()) + " download schemes and none for product " +
                    (out.product.empty() ? productName : out.product);
            return false;
        }
        out.choice = "download scheme " + NameOf(scheme) + " of " + std::to_string(schemes.size()) +
                     ", matched by product " + out.product;
    }
    out.name = NameOf(scheme);
    std::size_t index = 0;
    bool ok = true;
    EachChild(scheme, "File", [&](const XMLElement* f) {
        if (!ok) return;
        SchemeEntry e;
        ok = ReadEntry(f, index++, e, error);
        if (ok) out.entries.push_back(std::move(e));
    });
    if (!ok) return false;
    if (out.entries.empty()) {
        error = "download scheme " + out.name + " has no File entries";
        return false;
    }
    return true;
}

}  // namespace quorvel::sprd
