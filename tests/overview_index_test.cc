// Differential tests: the report's O(n log n) list, tree and duplicate
// steps (overview_index.h) against the direct algorithms
// (overview_reference.h), on many random record sets full of equal names,
// equal rids, equal references, empty names and records without decoded
// contents: the same model, findings included, and the same report.
#include "report/overview_index.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "config_db/block_store.h"
#include "io/findings.h"
#include "overview_reference.h"
#include "privbuild/config_writer.h"
#include "report/copy_loading.h"
#include "test_support.h"

namespace pd {
namespace {

std::vector<db_record*> list_of(const reclist* l) {
  std::vector<db_record*> v;
  for (; l != nullptr; l = l->next) v.push_back(l->r);
  return v;
}

// Pre-order: depth, record and difference of every node.
std::string tree_of(const sview* p, int depth = 0) {
  std::string s;
  for (; p != nullptr; p = p->rlink) {
    s += std::to_string(depth) + ":" + std::to_string(reinterpret_cast<std::uintptr_t>(p->r)) +
         ":" + std::to_string(p->diff) + " ";
    s += tree_of(p->dlink, depth + 1);
  }
  return s;
}

// Names with many repeats, a prefix of another, bytes above 0x7f (strcmp
// compares them unsigned) and the empty name.
const char* const kNames[] = {"", "a", "a", "b", "ab", "ba", "b\xe9", "vol", "vol1", "vol10",
                              "Z", "zz", "\xff"};

// Disk ids; the last ones share their first 36 characters.
const char* const kIds[] = {"", "id1", "id2", "a0000002-1234-0002-4041-424344454647x",
                            "a0000002-1234-0002-4041-424344454647y",
                            "a0000002-1234-0002-4041-424344454647"};

// Store records with collected records, hashed in a store of their own.
class random_records {
 public:
  random_records(std::mt19937& rng, std::size_t n, unsigned rid_range) : db_(ddb_alloc(nullptr)) {
    auto pick = [&](std::size_t k) { return static_cast<std::size_t>(rng() % k); };
    auto rid = [&]() {
      volrid_t v;
      v.seqno_hi = static_cast<std::uint32_t>(pick(2));
      v.seqno_lo = static_cast<std::uint32_t>(1 + pick(rid_range));
      return v;
    };
    for (std::size_t i = 0; i < n; ++i) {
      db_record& r = dbrecs_.emplace_back();
      r = db_record{};
      // Equal references, and references that share a chain.
      r.dbr_ref = 1 + pick(3) * DDB_NBUCKETS + pick(n + 1);
      const std::size_t kind = pick(100);
      if (kind >= 95) {  // no decoded contents
        dbr_add(db_, &r);
        continue;
      }
      const int type = kind < 20   ? REC_TYPE_VOL
                       : kind < 45 ? REC_TYPE_PLEX
                       : kind < 70 ? REC_TYPE_SD
                       : kind < 82 ? REC_TYPE_DM
                       : kind < 87 ? REC_TYPE_DG
                       : kind < 91 ? REC_TYPE_DA
                                   : static_cast<int>(pick(2)) * 9;  // DCO, or type 0
      record& rec = recs_.emplace_back();
      rec.type = type;
      rec.dbrec = &r;
      std::strcpy(rec.name, kNames[pick(std::size(kNames))]);
      if (const std::size_t room = record_room(type)) rec.u = std::calloc(1, room);
      switch (type) {
        case REC_TYPE_VOL:
          rec.vol()->v_rid = rid();
          rec.vol()->v_pl_num = static_cast<std::uint32_t>(pick(4));
          rec.vol()->v_len = static_cast<voff_t>(pick(1 << 20)) - 1000;
          break;
        case REC_TYPE_PLEX:
          rec.plex()->pl_rid = rid();
          rec.plex()->pl_vol_rid = rid();
          rec.plex()->pl_sd_num = static_cast<std::uint32_t>(pick(4));
          break;
        case REC_TYPE_SD:
          rec.sd()->sd_plex_rid = rid();
          rec.sd()->sd_len = static_cast<voff_t>(pick(1 << 20));
          break;
        case REC_TYPE_DM:
          std::strcpy(rec.dm()->dm_name, kNames[pick(std::size(kNames))]);
          std::strcpy(rec.dm()->dm_diskid, kIds[pick(std::size(kIds))]);
          break;
        default: break;
      }
      r.dbr_private = &rec;
      dbr_add(db_, &r);
    }
  }
  ~random_records() {
    for (db_record& r : dbrecs_) dbr_delete(db_, &r);
    ddb_free(db_);
    for (record& r : recs_) std::free(r.u);
  }
  random_records(const random_records&) = delete;
  random_records& operator=(const random_records&) = delete;

  dbase* db() { return db_; }
  std::vector<db_record*> all() {
    std::vector<db_record*> v;
    for (db_record& r : dbrecs_) v.push_back(&r);
    return v;
  }

 private:
  dbase* db_;
  std::deque<db_record> dbrecs_;
  std::deque<record> recs_;
};

// Everything the overview prints and builds: the report from the overview
// on, findings included, the tree, the counts and the lists.
struct overview_result {
  std::string text;
  std::string structure;
};

overview_result run_overview(dbase* db, bool direct) {
  test::captured_session cs;
  overview_state st;
  const voldb_info hdr{};
  if (direct) {
    test::reference_analyse(st, db, hdr);
  } else {
    overview_analyse(st, db, hdr, 0);
  }
  print_overview(cs.get(), db, hdr, st);
  overview_result res;
  res.text = cs.out();
  res.structure = "tree " + tree_of(st.root) + "\ncounts " + std::to_string(st.v_cnt) + " " +
                  std::to_string(st.pl_cnt) + " " + std::to_string(st.sd_cnt) + " " +
                  std::to_string(st.dm_cnt) + "\n";
  for (const reclist* l :
       {st.dglist, st.vollist, st.plexlist, st.sdlist, st.dmlist, st.otherlist}) {
    res.structure += "list";
    for (db_record* r : list_of(l)) res.structure += " " + std::to_string(r->dbr_ref);
    res.structure += "\n";
  }
  return res;
}

TEST(ListOrderTest, EqualNamesFollowTheInsertionRule) {
  // x1 is the head; x2 and x3 go right behind it; once a smaller name is
  // in, x4 and x5 go in front of the other x's.
  std::deque<record> recs;
  std::deque<db_record> dbrecs;
  auto add = [&](const char* name) {
    record& rec = recs.emplace_back();
    std::strcpy(rec.name, name);
    db_record& r = dbrecs.emplace_back();
    r = db_record{};
    r.dbr_private = &rec;
    return &r;
  };
  db_record* x1 = add("x");
  db_record* x2 = add("x");
  db_record* x3 = add("x");
  db_record* a = add("a");
  db_record* x4 = add("x");
  db_record* x5 = add("x");
  node_pool pool;
  EXPECT_EQ(list_of(name_sorted_list(pool, {x1, x2, x3, a, x4, x5})),
            (std::vector<db_record*>{a, x5, x4, x1, x3, x2}));
  // A run that starts after a smaller name is reversed whole.
  EXPECT_EQ(list_of(name_sorted_list(pool, {a, x1, x2, x3})),
            (std::vector<db_record*>{a, x3, x2, x1}));
  EXPECT_EQ(name_sorted_list(pool, {}), nullptr);
}

TEST(ListOrderTest, MatchesListaddOnRandomSequences) {
  std::mt19937 rng(1234);
  for (int trial = 0; trial < 3000; ++trial) {
    random_records set(rng, rng() % 60, 8);
    std::vector<db_record*> recs = set.all();
    std::shuffle(recs.begin(), recs.end(), rng);
    node_pool pool;
    reclist* direct = nullptr;
    for (db_record* r : recs) test::listadd(pool, &direct, r);
    ASSERT_EQ(list_of(name_sorted_list(pool, recs)), list_of(direct)) << "trial " << trial;
  }
}

TEST(OverviewIndexTest, MatchesTheDirectAlgorithmsOnRandomRecordSets) {
  std::mt19937 rng(42);
  for (int trial = 0; trial < 2000; ++trial) {
    // Few rids: many plexes and subdisks find several equal parents.
    const std::size_t n = rng() % 120;
    random_records set(rng, n, 1 + static_cast<unsigned>(n / 4));
    const overview_result direct = run_overview(set.db(), true);
    const overview_result fast = run_overview(set.db(), false);
    ASSERT_EQ(fast.text, direct.text) << "trial " << trial;
    ASSERT_EQ(fast.structure, direct.structure) << "trial " << trial;
  }
}

TEST(OverviewIndexTest, MatchesTheDirectAlgorithmsOnALargeSet) {
  std::mt19937 rng(7);
  random_records set(rng, 6000, 1500);
  const overview_result direct = run_overview(set.db(), true);
  const overview_result fast = run_overview(set.db(), false);
  EXPECT_EQ(fast.text, direct.text);
  EXPECT_EQ(fast.structure, direct.structure);
  // The set is not trivial: a tree, leftovers and duplicate ids.
  EXPECT_NE(direct.text.find("|   |   |---"), std::string::npos);
  EXPECT_NE(direct.text.find("have duplicate id"), std::string::npos);
}

// A random configuration copy in the config generator's language: records
// of every kind the tree uses with few names and rids, some refused (no
// contents kept) and some missing a fragment (never complete).
std::vector<std::string> random_copy_lines(std::mt19937& rng, std::size_t n) {
  auto pick = [&](std::size_t k) { return static_cast<std::size_t>(rng() % k); };
  auto name = [&]() { return "\"" + std::string(kNames[pick(5)]) + "\""; };
  const unsigned rids = 1 + static_cast<unsigned>(n / 3);
  auto rid = [&]() { return "0." + std::to_string(100 + pick(rids)); };
  std::vector<std::string> lines = {"database blksize=64 dgname=dg config-tid=0.50"};
  for (std::size_t i = 0; i < n; ++i) {
    std::string l;
    switch (pick(12)) {
      case 0: l = "group name=" + name() + " rid=" + rid(); break;
      case 1:
      case 2:
        l = "volume name=" + name() + " rid=" + rid() + " pl_num=" + std::to_string(pick(3)) +
            " len=" + std::to_string(pick(100000));
        break;
      case 3:
      case 4:
      case 5:
        l = "plex name=" + name() + " rid=" + rid() + " vol_rid=" + rid() +
            " sd_num=" + std::to_string(pick(3));
        break;
      case 6:
      case 7:
      case 8:
        l = "subdisk name=" + name() + " rid=" + rid() + " plex_rid=" + rid() +
            " len=" + std::to_string(pick(100000));
        break;
      case 9:
      case 10:
        l = "disk name=" + name() + " rid=" + rid() + " diskid=\"" + kIds[pick(std::size(kIds))] +
            "\"";
        break;
      default: l = "diskaccess name=" + name() + " rid=" + rid(); break;
    }
    if (pick(20) == 0) l += " rflags=2";  // refused: no contents
    if (pick(20) == 0) l += " skip=1";    // a fragment missing
    lines.push_back(l);
  }
  return lines;
}

// The report of a copy from the overview on, its model built by the
// library or by the direct algorithms.
std::string run_report(const std::vector<std::uint8_t>& copy, bool direct) {
  test::captured_session load;
  finding_collector raised;
  load->sink = &raised;
  std::vector<std::uint8_t> buf = copy;
  config_report rep(load.get());
  EXPECT_EQ(rep.configcopy_setup(), 1);
  rep.print_report = false;
  rep.configcopy_more(buf.data(), 0, buf.size() / 512);
  rep.configcopy_eof();
  test::captured_session cs;
  if (direct) {
    overview_state st;
    test::reference_analyse(st, rep.db, rep.hdrinfo);
    print_overview(cs.get(), rep.db, rep.hdrinfo, st);
  } else {
    print_overview(cs.get(), rep.db, rep.hdrinfo, rep.view);
  }
  return cs.out();
}

TEST(OverviewIndexTest, WholeReportsMatchOnRandomCopies) {
  std::mt19937 rng(99);
  int with_tree = 0;
  for (int trial = 0; trial < 300; ++trial) {
    const std::size_t n = 1 + rng() % 50;
    std::string error;
    const std::vector<std::uint8_t> copy =
        build_config_copy(random_copy_lines(rng, n), (8 + 4 * n) * 64 / 512 * 512 + 512, &error);
    ASSERT_EQ(error, "") << "trial " << trial;
    const std::string direct = run_report(copy, true);
    ASSERT_EQ(run_report(copy, false), direct) << "trial " << trial;
    with_tree += direct.find("|   |---") != std::string::npos;
  }
  EXPECT_GT(with_tree, 50);  // plexes under volumes are common, not rare
}

}  // namespace
}  // namespace pd
