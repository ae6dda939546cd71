// make-catalog: writes the unsigned catalog (.cat) of a driver package's
// files, as Inf2Cat does on Windows; scripts/package.sh then signs it with
// osslsigncode. Prints each member's digests.
//
//   make-catalog --out PKG.cat [--time UNIX-SECONDS] [--os 10_X64]
//                [--hwid ID]... FILE...
#include "Catalog.h"
#include "PeHash.h"

#include <openssl/evp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace {

struct OsTarget {
    const char* catalogOs; // the catalog's OS attribute
    const char* osAttr;    // each member's OSAttr: platform 2 (NT), version
};

// Inf2Cat's /os names this tool knows and what it writes for them.
const std::map<std::string, OsTarget> kTargets = {
    {"10_X64", {"_v100_X64", "2:10.0"}},
};

int usage(const char* why) {
    std::fprintf(stderr,
                 "make-catalog: %s\n"
                 "usage: make-catalog --out PKG.cat [--time UNIX-SECONDS] [--os 10_X64] "
                 "[--hwid ID]... FILE...\n",
                 why);
    return 2;
}

bool readFile(const std::string& path, std::vector<uint8_t>* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

std::string baseName(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    return s;
}

std::string hex(const std::vector<uint8_t>& bytes) {
    std::string s;
    char two[3];
    for (uint8_t b : bytes) {
        std::snprintf(two, sizeof two, "%02x", b);
        s += two;
    }
    return s;
}

} // namespace

int main(int argc, char** argv) {
    std::string out, os = "10_X64";
    std::vector<std::string> files, hwids;
    mkcat::CatalogInfo info;
    info.thisUpdate = std::time(nullptr);
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--out" && hasValue)
            out = argv[++i];
        else if (arg == "--time" && hasValue)
            info.thisUpdate = std::time_t(std::strtoll(argv[++i], nullptr, 10));
        else if (arg == "--os" && hasValue)
            os = argv[++i];
        else if (arg == "--hwid" && hasValue)
            hwids.push_back(argv[++i]);
        else if (arg.rfind("--", 0) == 0)
            return usage(("unknown option or missing value: " + arg).c_str());
        else
            files.push_back(arg);
    }
    if (out.empty() || files.empty())
        return usage("--out and at least one file are needed");
    const auto target = kTargets.find(os);
    if (target == kTargets.end())
        return usage(("unknown --os " + os + " (known: 10_X64)").c_str());
    info.osAttr = target->second.osAttr;
    info.attrs.emplace_back("OS", target->second.catalogOs);
    // Inf2Cat names the hardware ids the INF installs on, in lower case.
    for (size_t i = 0; i < hwids.size(); ++i)
        info.attrs.emplace_back("HWID" + std::to_string(i + 1), lower(hwids[i]));

    for (const std::string& path : files) {
        std::vector<uint8_t> bytes;
        if (!readFile(path, &bytes)) {
            std::fprintf(stderr, "make-catalog: cannot read %s\n", path.c_str());
            return 1;
        }
        mkcat::Member m;
        m.name = lower(baseName(path));
        m.peImage = mkcat::isPeImage(bytes);
        if (m.peImage) {
            std::string error;
            if (!mkcat::peImageDigest(bytes, EVP_sha1(), &m.sha1, &error) ||
                !mkcat::peImageDigest(bytes, EVP_sha256(), &m.sha256, &error)) {
                std::fprintf(stderr, "make-catalog: %s: %s\n", path.c_str(), error.c_str());
                return 1;
            }
        } else {
            m.sha1 = mkcat::flatDigest(bytes, EVP_sha1());
            m.sha256 = mkcat::flatDigest(bytes, EVP_sha256());
        }
        std::printf("make-catalog: %-16s %-9s sha1 %s sha256 %s\n", m.name.c_str(),
                    m.peImage ? "PE image" : "flat", hex(m.sha1).c_str(), hex(m.sha256).c_str());
        info.members.push_back(m);
    }

    std::string error;
    const std::vector<uint8_t> der = mkcat::encodeCatalog(info, &error);
    std::vector<std::vector<uint8_t>> subjects;
    if (der.empty() || !mkcat::catalogSubjects(der, &subjects, &error) ||
        subjects.size() != 2 * info.members.size()) {
        std::fprintf(stderr, "make-catalog: %s\n",
                     error.empty() ? "the catalog does not read back" : error.c_str());
        return 1;
    }
    const std::string part = out + ".part";
    std::ofstream file(part, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(der.data()), std::streamsize(der.size()));
    file.close();
    if (!file || std::rename(part.c_str(), out.c_str()) != 0) {
        std::remove(part.c_str());
        std::fprintf(stderr, "make-catalog: cannot write %s\n", out.c_str());
        return 1;
    }
    std::printf("make-catalog: %s: %zu members (%zu files, SHA-1 and SHA-256), %zu bytes\n",
                baseName(out).c_str(), subjects.size(), info.members.size(), der.size());
    return 0;
}
