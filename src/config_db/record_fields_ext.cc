// Field tables of the further record kinds: storage pool, information
// record, data change object, snapshot, replicated volume, replication link,
// volume set, link set, export, site and cache. Layout of each base group:
// record id, name, then (where the kind has them) comment and utility
// strings, state, flags, update tid, and the kind's own members; the
// optional groups follow the presence flags of record_layouts.cc.
#include "config_db/record_field_macros.h"
#include "config_db/record_fields.h"
#include "config_db/records.h"

namespace pd {

#define S stpoolrec
const db_field stpooltmp_fields[] = {F_TMP(stp_rid, stp_name, stp_tutil)};
const db_field stpoolperm_fields[] = {
    F_VRID(stp_rid),        F_VSTR(stp_name),       F_VSTR(stp_comment),  F_PUTIL(stp_putil),
    F_U4(stp_pflag),        F_SEQ(stp_update_tid),  F_VSTR(stp_policy),   F_VU(stp_autogrow),
    F_VU(stp_selfsufficient), F_VU(stp_dm_num),     F_VU(stp_vol_num)};
const db_field stpoolperm_guid_fields[] = {F_GUID(stp_guid)};
const db_field stpoolperm_reserved1_fields[] = {F_U4(stp_reserved1)};
#undef S

#define S inforec
const db_field infotmp_fields[] = {F_TMP(inf_rid, inf_name, inf_tutil)};
const db_field infoperm_fields[] = {
    F_VRID(inf_rid),        F_VSTR(inf_name),   F_VSTR(inf_comment),  F_U4(inf_pflag),
    F_SEQ(inf_update_tid),  F_VRID(inf_parent_rid), F_VU(inf_kind),   F_VU(inf_version),
    F_VBYTE(inf_value)};
const db_field infoperm_guid_fields[] = {F_GUID(inf_guid)};
const db_field infoperm_reserved1_fields[] = {F_U4(inf_reserved1)};
#undef S

#define S dcorec
const db_field dcotmp_fields[] = {F_TMP(dco_rid, dco_name, dco_tutil)};
// The first format keeps the map geometry in the base.
const db_field dcoperm_fields_fmr2[] = {
    F_VRID(dco_rid),        F_VSTR(dco_name),       F_VSTR(dco_comment),  F_PUTIL(dco_putil),
    F_VSTR(dco_state),      F_U4(dco_pflag),        F_SEQ(dco_update_tid),
    F_VSTR(dco_log_name),   F_VRID(dco_log_vol),    F_VRID(dco_parent_vol),
    F_VU(dco_drl_len),      F_VU(dco_nmaps),        F_VVOFF(dco_regsz),   F_VU(dco_version)};
const db_field dcoperm_fields[] = {
    F_VRID(dco_rid),        F_VSTR(dco_name),       F_VSTR(dco_comment),  F_PUTIL(dco_putil),
    F_VSTR(dco_state),      F_U4(dco_pflag),        F_SEQ(dco_update_tid),
    F_VSTR(dco_log_name),   F_VRID(dco_log_vol),    F_VRID(dco_parent_vol)};
const db_field dcoperm_regsz_fields[] = {F_VVOFF(dco_regsz)};
const db_field dcoperm_version_fields[] = {F_U4(dco_version)};
const db_field dcoperm_reserved1_fields[] = {F_U4(dco_reserved1)};
#undef S

#define S snaprec
const db_field snaptmp_fields[] = {F_TMP(sp_rid, sp_name, sp_tutil)};
const db_field snapperm_fields_fmr2[] = {
    F_VRID(sp_rid),        F_VSTR(sp_name),      F_VSTR(sp_comment),  F_PUTIL(sp_putil),
    F_U4(sp_pflag),        F_SEQ(sp_update_tid), F_VRID(sp_dco_rid),  F_VRID(sp_vol_rid),
    F_VRID(sp_peer_rid),   F_VU(sp_map_index),   F_SEQ(sp_snap_tid),  F_GUID(sp_guid)};
const db_field snapperm_fields[] = {
    F_VRID(sp_rid),        F_VSTR(sp_name),      F_VSTR(sp_comment),  F_PUTIL(sp_putil),
    F_U4(sp_pflag),        F_U4(sp_pflag2),      F_SEQ(sp_update_tid), F_VRID(sp_dco_rid),
    F_VRID(sp_vol_rid),    F_VRID(sp_peer_rid),  F_VU(sp_map_index),  F_SEQ(sp_snap_tid),
    F_GUID(sp_vol_guid),   F_GUID(sp_snap_volguid), F_GUID(sp_plex_guid)};
const db_field snapperm_guid_fields[] = {F_GUID(sp_guid)};
const db_field snapperm_snpt_fields[] = {F_VRID(sp_snpt_rid), F_VSTR(sp_snpt_name)};
const db_field linkperm_fields[] = {F_SCHAR(sp_link_state), F_VRID(sp_link_rid),
                                    F_VVOFF(sp_link_offset)};
const db_field snapperm_reserved1_fields[] = {F_U4(sp_reserved1)};
#undef S

#define S rvolrec
const db_field rvoltmp_fields[] = {F_TMP(rv_rid, rv_name, rv_tutil)};
const db_field rvolperm_fields[] = {
    F_VRID(rv_rid),        F_VSTR(rv_name),       F_VSTR(rv_comment),   F_PUTIL(rv_putil),
    F_VSTR(rv_state),      F_U4(rv_pflag),        F_SEQ(rv_update_tid), F_VU(rv_minor),
    F_VU(rv_rlink_num),    F_VU(rv_datavol_num),  F_VRID(rv_srl_rid),   F_VSTR(rv_srl_name),
    F_VU(rv_primary),      F_SEQ(rv_checkpoint_seqno), F_SEQ(rv_detach_tid)};
const db_field rvolperm_logvol_rid_fields[] = {F_VRID(rv_logvol_rid)};
#undef S

#define S reprec
const db_field reptmp_fields[] = {F_TMP(rp_rid, rp_name, rp_tutil)};
const db_field repperm_fields[] = {
    F_VRID(rp_rid),              F_VSTR(rp_name),            F_VSTR(rp_comment),
    F_PUTIL(rp_putil),           F_VSTR(rp_state),           F_U4(rp_pflag),
    F_SEQ(rp_update_tid),        F_VRID(rp_rvol_rid),        F_VSTR(rp_remote_host),
    F_VSTR(rp_local_host),       F_VSTR(rp_remote_dg),       F_VSTR(rp_remote_dgid),
    F_VSTR(rp_remote_rlink),     F_VRID(rp_remote_rlink_rid), F_VU(rp_protocol),
    F_VU(rp_synchronous),        F_VU(rp_latency_high_mark), F_VU(rp_latency_low_mark),
    F_VU(rp_srl_protect),        F_VU(rp_packet_size),       F_VU(rp_timeout),
    F_SEQ(rp_checkpoint_seqno),  F_VU(rp_max_outstanding),   F_VU(rp_compression),
    F_PORT(rp_net_address),      F_PORT(rp_local_address)};
const db_field repperm_bandwidth_fields[] = {F_U8(rp_bandwidth_limit)};
const db_field repperm_ipv6_fields[] = {F_PORT6(rp_net_address6), F_PORT6(rp_local_address6)};
#undef S

#define S vsetrec
const db_field vsettmp_fields[] = {F_TMP(vset_rid, vset_name, vset_tutil)};
const db_field vsetperm_fields[] = {
    F_VRID(vset_rid),      F_VSTR(vset_name),      F_VSTR(vset_comment),  F_PUTIL(vset_putil),
    F_VSTR(vset_state),    F_VSTR(vset_use_type),  F_U4(vset_pflag),      F_SEQ(vset_update_tid),
    F_VU(vset_minor),      F_VU(vset_vol_num),     F_VU(vset_uid),        F_VU(vset_gid),
    F_VU(vset_mode),       F_VVOFF(vset_len),      F_SEQ(vset_detach_tid), F_GUID(vset_guid)};
const db_field vsetperm_svm_fields[] = {F_VRID(vset_svm_rid)};
const db_field vsetperm_rvol_fields[] = {F_VRID(vset_rvol_rid)};
const db_field vsetperm_reserved1_fields[] = {F_U4(vset_reserved1)};
#undef S

#define S linksetrec
const db_field linksettemp_fields[] = {F_TMP(ls_rid, ls_name, ls_tutil)};
const db_field linksetperm_fields[] = {
    F_VRID(ls_rid),         F_VSTR(ls_name),         F_VSTR(ls_comment),    F_PUTIL(ls_putil),
    F_VSTR(ls_state),       F_U4(ls_pflag),          F_SEQ(ls_update_tid),  F_VRID(ls_src_rid),
    F_VRID(ls_dst_rid),     F_VRID(ls_src_dco_rid),  F_VRID(ls_dst_dco_rid), F_VU(ls_map_index),
    F_SEQ(ls_sync_tid),     F_GUID(ls_guid),         F_GUID(ls_src_volguid), F_GUID(ls_dst_volguid)};
const db_field linksetperm_reserved1_fields[] = {F_U4(ls_reserved1)};
#undef S

#define S exportrec
const db_field exporttemp_fields[] = {F_TMP(ex_rid, ex_name, ex_tutil)};
const db_field exportperm_fields[] = {
    F_VRID(ex_rid),   F_VSTR(ex_name),  F_VSTR(ex_comment),  F_U4(ex_pflag),
    F_SEQ(ex_update_tid), F_VSTR(ex_host), F_VRID(ex_obj_rid), F_VSTR(ex_obj_name),
    F_VU(ex_mode)};
const db_field exportperm_reserved1_fields[] = {F_U4(ex_reserved1)};
#undef S

#define S siterec
const db_field sitetmp_fields[] = {F_TMP(site_rid, site_name, site_tutil)};
const db_field siteperm_fields[] = {
    F_VRID(site_rid),      F_VSTR(site_name),        F_VSTR(site_comment), F_PUTIL(site_putil),
    F_U4(site_pflag),      F_SEQ(site_update_tid),   F_GUID(site_guid),    F_VU(site_state),
    F_VU(site_dm_num)};
const db_field siteperm_reserved1_fields[] = {F_U4(site_reserved1)};
#undef S

#define S cacherec
const db_field cachetmp_fields[] = {F_TMP(cache_rid, cache_name, cache_tutil)};
const db_field cacheperm_fields[] = {
    F_VRID(cache_rid),          F_VSTR(cache_name),        F_VSTR(cache_comment),
    F_PUTIL(cache_putil),       F_VSTR(cache_state),       F_U4(cache_pflag),
    F_SEQ(cache_update_tid),    F_VRID(cache_vol_rid),     F_VU(cache_minor),
    F_VVOFF(cache_len),         F_VVOFF(cache_region_size), F_VVOFF(cache_highwater),
    F_VVOFF(cache_autogrow_size), F_VVOFF(cache_maxgrow),  F_VU(cache_autogrow),
    F_VU(cache_nsnaps),         F_VU(cache_uid),           F_VU(cache_gid),
    F_VU(cache_mode),           F_SEQ(cache_detach_tid),   F_VU(cache_iosize),
    F_VU(cache_mapsize),        F_GUID(cache_guid)};
const db_field cacheperm_svm_fields[] = {F_VRID(cache_svm_rid)};
const db_field cacheperm_version_fields[] = {F_U4(cache_version)};
const db_field cacheperm_reserved1_fields[] = {F_U4(cache_reserved1)};
#undef S

}  // namespace pd
