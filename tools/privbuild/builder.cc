// Laying out an image from the model: region contents, the TOC, the header
// copies, then the damage statements (poke, fixsum, truncate) in order.
#include "privbuild/builder.h"

#include <algorithm>
#include <cstring>

#include "codec/integers.h"
#include "private_region/header.h"
#include "private_region/toc.h"
#include "privbuild/builder_internal.h"
#include "privbuild/header_fields.h"
#include "privbuild/whole_disk.h"

namespace pd {

namespace {

bool run_generator(const std::string& name, const content_request& req, int line,
                   std::vector<std::uint8_t>* out, std::string* error) {
  const content_generator* gen = find_content_generator(name);
  if (gen == nullptr) {
    *error = at_line(line, "no content generator called '" + name + "'");
    return false;
  }
  std::string why;
  *out = (*gen)(req, &why);
  if (!why.empty()) {
    *error = at_line(line, why);
    return false;
  }
  if (out->size() > req.size) {
    *error = at_line(line, name + " produced " + std::to_string(out->size()) +
                               " bytes for a region of " + std::to_string(req.size));
    return false;
  }
  return true;
}

bool write_region_contents(const image_plan& plan, const priv_header_info& hdr, image* img,
                           std::string* error) {
  for (const region_plan& r : plan.regions) {
    if ((r.flags & DKR_PUBLIC) || (r.content.empty() && r.fill < 0)) continue;
    const std::size_t size = static_cast<std::size_t>(std::max<voff_t>(r.len, 0)) * plan.sector_size;
    std::vector<std::uint8_t> bytes(r.fill >= 0 ? size : 0, static_cast<std::uint8_t>(r.fill));
    if (!r.content.empty()) {
      const content_request req{r.type, static_cast<int>(r.copy), r.body, size, plan.sector_size, &hdr};
      std::vector<std::uint8_t> gen;
      if (!run_generator(r.content, req, r.line, &gen, error)) return false;
      if (bytes.size() < gen.size()) bytes.resize(gen.size());
      if (!gen.empty()) std::memcpy(bytes.data(), gen.data(), gen.size());
    }
    if (r.offset < 0 ||
        !img->write(static_cast<std::uint64_t>(r.offset) * plan.sector_size, bytes.data(), bytes.size())) {
      *error = at_line(r.line, "region contents lie outside the image");
      return false;
    }
  }
  return true;
}

// Generates a whole copy and spreads it over the copy's parts.
bool write_copy_contents(const image_plan& plan, const priv_header_info& hdr, image* img,
                         std::string* error) {
  for (const copy_content_plan& c : plan.copy_contents) {
    std::vector<const region_plan*> parts;
    std::uint64_t total = 0;
    for (const region_plan& r : plan.regions) {
      if (r.type != c.type || r.copy != c.copy) continue;
      parts.push_back(&r);
      total = std::max<std::uint64_t>(total, static_cast<std::uint64_t>(r.part_offset + r.len));
    }
    if (parts.empty()) {
      *error = at_line(c.line, "no " + c.type + " copy " + std::to_string(c.copy));
      return false;
    }
    const content_request req{c.type, static_cast<int>(c.copy), c.body,
                              static_cast<std::size_t>(total) * plan.sector_size, plan.sector_size, &hdr};
    std::vector<std::uint8_t> bytes;
    if (!run_generator(c.content, req, c.line, &bytes, error)) return false;
    for (const region_plan* r : parts) {
      const std::size_t from = static_cast<std::size_t>(r->part_offset) * plan.sector_size;
      if ((r->flags & DKR_PUBLIC) || from >= bytes.size()) continue;
      const std::size_t n =
          std::min(bytes.size() - from, static_cast<std::size_t>(r->len) * plan.sector_size);
      if (r->offset < 0 || !img->write(static_cast<std::uint64_t>(r->offset) * plan.sector_size,
                                       bytes.data() + from, n)) {
        *error = at_line(r->line, "copy contents lie outside the image");
        return false;
      }
    }
  }
  return true;
}

// The header copies: primary and alternate unless hdrcopy statements list
// the copies to write.
bool write_header_copies(const image_plan& plan, const priv_header_info& base, image* img,
                         build_layout* layout, std::string* error) {
  std::vector<hdrcopy_plan> copies = plan.hdrcopies;
  if (copies.empty()) {
    copies.push_back(hdrcopy_plan{0, "primary", {}, {}});
    copies.push_back(hdrcopy_plan{0, "alternate", {}, {}});
  }
  layout->primary_header = base.phi_primary_header;
  layout->alt_header = base.phi_alt_header;
  std::vector<std::uint8_t> buf(std::max<std::size_t>(plan.sector_size, PRIV_HEADER_SIZE));
  for (const hdrcopy_plan& c : copies) {
    priv_header_info h = base;
    for (const auto& [k, v] : c.fields) {
      std::string why;
      if (!apply_header_field(&h, k, v, &why)) {
        *error = at_line(c.line, why);
        return false;
      }
    }
    long long at = 0;
    if (c.at == "primary") {
      at = base.phi_primary_header;
    } else if (c.at == "alternate") {
      at = base.phi_alt_header;
    } else {
      parse_int(c.at, &at);
    }
    std::fill(buf.begin(), buf.end(), 0);
    priv_format_header(&h, buf.data());
    apply_damage(buf.data(), c.damage);
    std::uint8_t* dst = img->sector(at, plan.sector_size);
    if (dst == nullptr) {
      *error = at_line(c.line, "header copy at sector " + std::to_string(at) + " lies outside the image");
      return false;
    }
    std::memcpy(dst, buf.data(), plan.sector_size);
  }
  return true;
}

bool run_late_ops(const image_plan& plan, image* img, std::string* error) {
  for (const late_op& op : plan.late) {
    if (op.kind == "poke") {
      if (!img->write(op.at, op.bytes.data(), op.bytes.size())) {
        *error = at_line(op.line, "poke lies outside the image");
        return false;
      }
    } else if (op.kind == "fixsum") {
      const bool header = op.what == "header";
      const std::size_t n = header ? PRIV_HEADER_SIZE : plan.sector_size;
      std::uint8_t* p = img->sector(static_cast<voff_t>(op.at), n);
      if (p == nullptr) {
        *error = at_line(op.line, "fixsum lies outside the image");
        return false;
      }
      put_be32(p + 8, static_cast<std::uint32_t>(header ? priv_header_checksum(p)
                                                        : priv_toc_checksum(p, n)));
    } else {
      img->bytes.resize(op.length, plan.fill);
    }
  }
  return true;
}

}  // namespace

priv_header_info layout_header(const image_plan& plan) {
  priv_header_info h = plan.header;
  h.phi_atomic_iosize = plan.sector_size;
  h.phi_chunk_size = plan.sector_size;
  h.phi_chunk_shift = 9;
  h.phi_sctr_shift = 9;
  h.phi_priv_offset = 0;
  h.phi_nt_backup_header = 0;
  h.phi_next_seqno = h.phi_update_seqno;
  return h;
}

std::vector<std::uint8_t> build_image(const std::string& description, std::string* error,
                                      build_layout* layout) {
  error->clear();
  *layout = build_layout{};
  std::vector<desc_statement> all, statements, disk_statements;
  image_plan plan;
  if (!parse_description(description, &all, error)) return {};
  for (desc_statement& st : all) {
    (is_whole_disk_statement(st) ? disk_statements : statements).push_back(std::move(st));
  }
  if (!read_image_plan(statements, &plan, error)) return {};
  image img;
  img.ss = plan.sector_size;
  img.bytes.assign(plan.bytes, plan.fill);
  layout->sector_size = plan.sector_size;

  priv_header_info lay = layout_header(plan);
  if (!write_region_contents(plan, lay, &img, error) ||
      !write_copy_contents(plan, lay, &img, error) || !write_toc(plan, &lay, &img, layout, error))
    return {};
  priv_header_info base = plan.header;
  if (!plan.first_toc_given) base.phi_first_toc = lay.phi_first_toc;
  if (!plan.first_alt_toc_given) base.phi_first_alt_toc = lay.phi_first_alt_toc;
  if (!write_header_copies(plan, base, &img, layout, error) || !run_late_ops(plan, &img, error))
    return {};
  if (disk_statements.empty()) return std::move(img.bytes);
  std::vector<std::uint8_t> disk;
  if (!wrap_whole_disk(disk_statements, img.bytes, plan.sector_size, &disk, error)) return {};
  return disk;
}

std::vector<std::uint8_t> build_image(const std::string& description, std::string* error) {
  build_layout layout;
  return build_image(description, error, &layout);
}

}  // namespace pd
