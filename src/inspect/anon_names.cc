// Keys and pseudonyms of `anonymise` (see anon.h).
//
// A candidate is drawn from HMAC-SHA-256(key, "privinspect-anon" 0 class 0
// value 0 counter(4) block(4)), as many 32-byte blocks as the value is
// long: byte i of the stream picks character i within the class of the
// value's character i. Values are resolved in byte order, so a value's
// pseudonym depends only on the key, on the value and on the values of
// the image that collide with its candidates: two disks of one group agree
// on every value that no candidate of another value of either disk hits
// first (a collision needs two values of one shape and length; docs).
#include <fcntl.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "inspect/anon.h"

namespace pd {

namespace {

constexpr std::uint32_t max_counter = 4096;  // candidates tried per value
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

std::string anon_names::candidate(const std::string& value, std::uint32_t counter) const {
  const anon_class cls = class_of(value);
  std::string out = value;
  std::uint8_t block[32];
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (i % 32 == 0) {
      std::string msg("privinspect-anon");
      msg.push_back('\0');
      msg += cls == anon_class::hex ? "hex" : "text";
      msg.push_back('\0');
      msg += value;
      msg.push_back('\0');
      put_word(msg, counter);
      put_word(msg, static_cast<std::uint32_t>(i / 32));
      hmac(key_, msg, block);
    }
    const unsigned b = block[i % 32];
    const char c = value[i];
    if (cls == anon_class::hex) {
      if (c >= '0' && c <= '9') out[i] = "0123456789abcdef"[b % 16];
      else if (c >= 'a' && c <= 'f') out[i] = "0123456789abcdef"[b % 16];
      else if (c >= 'A' && c <= 'F') out[i] = "0123456789ABCDEF"[b % 16];
    } else if (c >= 'a' && c <= 'z') {
      out[i] = static_cast<char>('a' + b % 26);
    } else if (c >= 'A' && c <= 'Z') {
      out[i] = static_cast<char>('A' + b % 26);
    } else if (c >= '0' && c <= '9') {
      out[i] = static_cast<char>('0' + b % 10);
    }
  }
  return out;
}

void anon_names::add(const std::string& value) {
  if (!value.empty()) map_.emplace(value, std::string());
}

bool anon_names::resolve(std::string* error) {
  std::set<std::string> folded;  // every value, case folded
  std::vector<std::string> searched;
  for (const auto& [v, p] : map_) {
    folded.insert(fold(v));
    if (v.size() >= min_searched) searched.push_back(fold(v));
  }
  std::set<std::string> taken;  // pseudonyms given, case folded
  for (auto& [v, p] : map_) {
    bool found = false;
    for (std::uint32_t n = 0; n < max_counter && !found; ++n) {
      const std::string c = candidate(v, n);
      const std::string fc = fold(c);
      if (c == v || folded.count(fc) != 0 || taken.count(fc) != 0) continue;
      found = std::none_of(searched.begin(), searched.end(), [&](const std::string& o) {
        return fc.find(o) != std::string::npos;
      });
      if (found) {
        p = c;
        taken.insert(fc);
      }
    }
    if (!found) {
      *error = "no unique pseudonym for \"" + v + "\" (" + std::to_string(v.size()) +
               " characters, " + std::to_string(max_counter) + " candidates tried)";
      return false;
    }
  }
  return true;
}

const std::string& anon_names::pseudonym(const std::string& value) const {
  static const std::string none;
  auto it = map_.find(value);
  return it == map_.end() ? none : it->second;
}

std::string anon_map_text(const anon_names& names, const std::string& text) {
  // Longest first, so that "vol1-01" wins over "vol1".
  std::vector<const std::pair<const std::string, std::string>*> by_len;
  for (const auto& e : names.map()) by_len.push_back(&e);
  std::stable_sort(by_len.begin(), by_len.end(),
                   [](auto* a, auto* b) { return a->first.size() > b->first.size(); });
  auto word = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; };
  std::string out;
  for (std::size_t i = 0; i < text.size();) {
    bool hit = false;
    if (i == 0 || !word(text[i - 1]) || !word(text[i])) {
      for (const auto* e : by_len) {
        const std::string& v = e->first;
        if (text.compare(i, v.size(), v) != 0) continue;
        const std::size_t end = i + v.size();
        if (end < text.size() && word(text[end]) && word(v.back())) continue;
        out += e->second;
        i = end;
        hit = true;
        break;
      }
    }
    if (!hit) out.push_back(text[i++]);
  }
  return out;
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
