// Keys and pseudonyms of `anonymise` (see anon.h).
//
// A pseudonym is drawn through the trie of the image's values (anon.h):
// character j of value v is mapped by the node of v's first j characters,
// whose keyed shuffle is HMAC-SHA-256(key, "privinspect-anon-node" 0 class
// 0 alphabet 0 prefix 0 draw(4)). A value's pseudonym thus depends on the
// key, on the value and on the characters that follow each of its
// prefixes in the other values of the image: two disks whose values agree
// along those paths (the disks of one group holding the same database)
// give it the same pseudonym (docs/anonymise.md).
#include <fcntl.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <cstdio>

#include "inspect/anon.h"

namespace pd {

namespace {

constexpr std::uint32_t max_attempts = 64;  // draws of the whole set
constexpr std::size_t min_searched = 3;      // shorter values are not searched for

std::string fold(const std::string& s) {
  std::string f = s;
  for (char& c : f) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return f;
}

bool is_hex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// The HMAC of `msg` under `key`.
void hmac(const std::vector<std::uint8_t>& key, const std::string& msg, std::uint8_t out[32]) {
  unsigned int len = 32;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(msg.data()), msg.size(), out, &len);
}

void put_word(std::string& s, std::uint32_t v) {
  for (int i = 3; i >= 0; --i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

}  // namespace

anon_class anon_names::class_of(const std::string& v) {
  // 8-4-4-4-12 hex digits: a GUID text, which must stay one.
  if (v.size() != 36) return anon_class::text;
  for (std::size_t i = 0; i < v.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? v[i] != '-' : !is_hex(v[i])) return anon_class::text;
  }
  return anon_class::hex;
}

void anon_names::add(const std::string& value) {
  if (!value.empty()) map_.emplace(value, std::string());
}

// The alphabet a character is drawn within, or null when it is kept.
const char* alphabet_of(anon_class cls, char c) {
  if (cls == anon_class::hex) {
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) return "0123456789abcdef";
    if (c >= 'A' && c <= 'F') return "ABCDEF";
    return nullptr;
  }
  if (c >= 'a' && c <= 'z') return "abcdefghijklmnopqrstuvwxyz";
  if (c >= 'A' && c <= 'Z') return "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  if (c >= '0' && c <= '9') return "0123456789";
  return nullptr;
}

bool anon_names::resolve(std::string* error) {
  std::set<std::string> folded;  // every value, case folded
  std::unordered_set<std::string_view> searched;  // into `folded`
  std::vector<std::size_t> searched_lengths;      // their lengths, ascending
  for (const auto& [v, p] : map_) {
    const std::string& f = *folded.insert(fold(v)).first;
    if (f.size() < min_searched || !searched.insert(f).second) continue;
    if (std::find(searched_lengths.begin(), searched_lengths.end(), f.size()) == searched_lengths.end())
      searched_lengths.push_back(f.size());
  }
  std::sort(searched_lengths.begin(), searched_lengths.end());
  if (rid_trie_ && !rid_trie_->resolve(error)) return false;
  for (auto& [v, p] : rids_) {
    const auto dot = v.find('.');
    p = v.substr(0, dot + 1) + rid_trie_->pseudonym(v.substr(dot + 1));
  }
  if (numbers_) {
    // Ids: one draw; any number fits (no search, an id may stay).
    for (auto& [v, p] : map_) p = trie_pseudonym(v, 0);
    return true;
  }
  for (std::uint32_t n = 0; n < max_attempts; ++n) {
    // Each draw: every value's pseudonym through the keyed maps of the
    // trie of values; then the whole set is checked.
    std::set<std::string> taken;
    std::string bad;
    for (auto& [v, p] : map_) {
      p = trie_pseudonym(v, n);
      const std::string fp = fold(p);
      // Every piece of the pseudonym as long as a searched value, looked up.
      const std::string_view fv(fp);
      bool hits = false;
      for (std::size_t i = 0; i + min_searched <= fv.size() && !hits; ++i) {
        for (std::size_t len : searched_lengths) {
          if (i + len > fv.size() || hits) break;
          hits = searched.count(fv.substr(i, len)) != 0;
        }
      }
      if (p == v || folded.count(fp) != 0 || !taken.insert(fp).second || hits) {
        bad = v;
        break;
      }
    }
    if (bad.empty()) return true;
    last_bad_ = bad;
  }
  *error = "no unique pseudonym for \"" + last_bad_ + "\" (" + std::to_string(last_bad_.size()) +
           " characters, " + std::to_string(max_attempts) + " draws tried)";
  return false;
}

std::string anon_names::trie_pseudonym(const std::string& v, std::uint32_t counter) {
  const anon_class cls = class_of(v);
  std::string out = v;
  for (std::size_t j = 0; j < v.size(); ++j) {
    const char* alpha = numbers_ ? (j == 0 ? "123456789" : "0123456789") : alphabet_of(cls, v[j]);
    if (alpha == nullptr) continue;
    // The characters that follow this prefix in the values of the class,
    // drawn within this alphabet: mapped in order onto as many characters
    // of the alphabet, picked by the keyed shuffle of this node.
    const std::string prefix = v.substr(0, j);
    const std::string node = std::string(cls == anon_class::hex ? "hex" : "text") + '\0' +
                             alpha + '\0' + prefix;
    auto it = nodes_.find({node, counter});
    if (it == nodes_.end()) {
      std::set<char> children;
      for (auto m = map_.lower_bound(prefix); m != map_.end() && m->first.compare(0, j, prefix) == 0; ++m) {
        if (m->first.size() > j && class_of(m->first) == cls &&
            (numbers_ || alphabet_of(cls, m->first[j]) == alpha))
          children.insert(m->first[j]);
      }
      std::string pool = alpha;
      std::string msg = std::string("privinspect-anon-node") + '\0' + node + '\0';
      put_word(msg, counter);
      std::uint8_t mac[32];
      hmac(key_, msg, mac);
      for (std::size_t i = pool.size() - 1; i > 0; --i) std::swap(pool[i], pool[mac[i % 32] % (i + 1)]);
      std::string picked = pool.substr(0, children.size());
      std::sort(picked.begin(), picked.end());
      std::map<char, char> m;
      std::size_t i = 0;
      for (char c : children) m[c] = picked[i++];
      it = nodes_.emplace(std::make_pair(node, counter), std::move(m)).first;
    }
    out[j] = it->second.at(v[j]);
  }
  return out;
}

void anon_names::add_rid(volrid_t r) {
  if (r.seqno_lo == 0) return;
  if (!rid_trie_) rid_trie_ = std::make_unique<anon_names>(key_, true);
  rid_trie_->add(std::to_string(r.seqno_lo));
  rids_.emplace(std::to_string(r.seqno_hi) + "." + std::to_string(r.seqno_lo), std::string());
}

volrid_t anon_names::rid(volrid_t r) const {
  if (r.seqno_lo == 0 || !rid_trie_) return r;
  const std::string& p = rid_trie_->pseudonym(std::to_string(r.seqno_lo));
  if (p.empty()) return r;
  volrid_t out = r;
  out.seqno_lo = static_cast<std::uint32_t>(std::stoul(p));
  return out;
}

const std::string& anon_names::pseudonym(const std::string& value) const {
  static const std::string none;
  auto it = map_.find(value);
  return it == map_.end() ? none : it->second;
}

std::string anon_map_text(const anon_names& names, const std::string& text) {
  // Longest first, so that "vol1-01" wins over "vol1": the values by their
  // text, and for each first byte the lengths of the values that start
  // with it, longest first (a position costs a lookup per length).
  std::unordered_map<std::string_view, const std::string*> by_text;
  std::array<std::vector<std::size_t>, 256> lengths;
  auto index = [&](const auto& list) {
    for (const auto& [v, p] : list) {
      if (!by_text.emplace(v, &p).second) continue;
      std::vector<std::size_t>& l = lengths[static_cast<unsigned char>(v[0])];
      if (std::find(l.begin(), l.end(), v.size()) == l.end()) l.push_back(v.size());
    }
  };
  index(names.map());
  index(names.rids());
  for (auto& l : lengths) std::sort(l.rbegin(), l.rend());
  auto word = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
  const std::string_view t(text);
  std::string out;
  for (std::size_t i = 0; i < t.size();) {
    bool hit = false;
    if (i == 0 || !word(t[i - 1]) || !word(t[i])) {
      for (std::size_t len : lengths[static_cast<unsigned char>(t[i])]) {
        if (len > t.size() - i) continue;
        auto found = by_text.find(t.substr(i, len));
        if (found == by_text.end()) continue;
        const std::size_t end = i + len;
        if (end < t.size() && word(t[end]) && word(t[end - 1])) continue;
        out += *found->second;
        i = end;
        hit = true;
        break;
      }
    }
    if (!hit) out.push_back(t[i++]);
  }
  return out;
}

std::string anon_mask_computed(const std::string& text) {
  static const std::string mark = "computed 0x";
  std::string out;
  std::size_t i = 0;
  for (std::size_t at; (at = text.find(mark, i)) != std::string::npos;) {
    out.append(text, i, at - i);
    out += "computed 0x?";
    i = at + mark.size();
    while (i < text.size() && is_hex(text[i])) ++i;
  }
  return out + text.substr(i);
}

bool anon_read_key(const std::string& path, std::vector<std::uint8_t>* key, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot open: " + std::strerror(errno);
    return false;
  }
  std::ostringstream ss;
  ss << in.rdbuf();
  std::string text = ss.str();
  const auto b = text.find_first_not_of(" \t\r\n");
  const auto e = text.find_last_not_of(" \t\r\n");
  text = b == std::string::npos ? std::string() : text.substr(b, e - b + 1);
  if (text.size() != 2 * ANON_KEY_BYTES || !std::all_of(text.begin(), text.end(), is_hex)) {
    *error = path + ": not a key file (64 hex digits expected)";
    return false;
  }
  key->clear();
  for (std::size_t i = 0; i < text.size(); i += 2) {
    key->push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  }
  return true;
}

bool anon_new_key(const std::string& path, std::string* error) {
  std::uint8_t key[ANON_KEY_BYTES];
  if (RAND_bytes(key, sizeof key) != 1) {
    *error = "no random bytes for a key";
    return false;
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    *error = path + ": cannot create: " + std::strerror(errno);
    return false;
  }
  std::string text;
  for (std::uint8_t b : key) {
    text.push_back("0123456789abcdef"[b >> 4]);
    text.push_back("0123456789abcdef"[b & 15]);
  }
  text.push_back('\n');
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                  ::fsync(fd) == 0;
  const int saved = errno;
  if (::close(fd) != 0 || !ok) {
    *error = path + ": cannot write: " + std::strerror(ok ? errno : saved);
    ::unlink(path.c_str());
    return false;
  }
  return true;
}

std::string anon_key_id(const std::vector<std::uint8_t>& key) {
  std::uint8_t mac[32];
  hmac(key, "key-id", mac);
  std::string id;
  for (int i = 0; i < 8; ++i) {
    id.push_back("0123456789abcdef"[mac[i] >> 4]);
    id.push_back("0123456789abcdef"[mac[i] & 15]);
  }
  return id;
}

}  // namespace pd
