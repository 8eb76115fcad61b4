// Silent configuration loading for privinspect's record views.
#include "inspect/inspect_load.h"

#include "codec/integers.h"
#include "io/io_buffers.h"
#include "config_db/block_store.h"
#include "io/messages.h"

namespace pd {

namespace {

constexpr std::size_t LOAD_BUFSIZE = 0x200000;
constexpr std::size_t LOAD_RUN_BLOCKS = 128;
constexpr std::size_t LOAD_BLKSIZE = 512;

bool copy_is_disabled(const copy_info* cp) {
  return cp->ci_npart > 0 && (cp->ci_parts[0]->tei_region.dkr_flags & DKR_DISABLED) != 0;
}

}  // namespace

copy_info* inspect_select_config_copy(session& s, priv_info* priv, int copy) {
  if (priv->pri_config_copies == nullptr) {
    volpfmt(s, s.err, 1, ":594:Disk has no config copies\n");
    return nullptr;
  }
  for (copy_info* cp = priv->pri_config_copies; cp != nullptr; cp = cp->ci_next) {
    if (copy < 0 ? !copy_is_disabled(cp) : cp->ci_copy == copy) return cp;
  }
  if (copy < 0) {
    volpfmt(s, s.err, 1, ":595:Disk has no enabled config copies\n");
  } else {
    volpfmt(s, s.err, 1, ":566:Disk does not have config copy %d\n", copy);
  }
  return nullptr;
}

bool loaded_copy::load(priv_info* priv, copy_info* c) {
  session& s = rep.s;
  cp = c;
  std::uint8_t* buf = get_aligned_buf(s, LOAD_BUFSIZE);
  if (buf == nullptr) {
    volpfmt(s, s.err, 1, ":733:Memory allocation failed\n");
    return false;
  }
  rep.configcopy_setup();
  for (std::size_t cpoffset = 0;;) {
    std::size_t nread = 0;
    if (priv_read_copy(s, priv, cp, buf, cpoffset, LOAD_RUN_BLOCKS, &nread) != 0) {
      volpfmt(s, s.err, 1, ":640:Failed to read log copy %d\n", cp->ci_copy);
      return false;
    }
    if (nread == 0) return true;
    for (std::size_t i = 0; i < nread; i++) {
      std::size_t blkno = cpoffset + i;
      int res = ddb_extract(rep.db, buf + i * LOAD_BLKSIZE, blkno * LOAD_BLKSIZE, LOAD_BLKSIZE);
      if (res != 0) {
        volpfmt(s, s.err, 1, ":624:Error (File block %u): %s\n", static_cast<unsigned>(blkno),
                vol_strerror(res));
        errors++;
      }
      std::size_t end = rep.db->ddb_nblocks * rep.db->ddb_blksize;
      if (rep.db->ddb_hdrsize != 0 && end <= (blkno + 1) * LOAD_BLKSIZE) return true;
    }
    cpoffset += nread;
  }
}

}  // namespace pd
