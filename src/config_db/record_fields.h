// The field tables of every record group, with their entry counts.
//
// Declared with their sizes so that a definition with a different number of
// entries does not compile. Definitions: record_fields_main.cc (volume,
// plex, subdisk, disk media, disk group, disk access) and
// record_fields_ext.cc (the other kinds). rec2field_table (record_layouts.cc)
// assembles them into record-type entries.
#pragma once

#include <cstddef>

#include "codec/field_codec.h"

#define PD_FTBL(name, n)                    \
  extern const ::pd::db_field name[n];      \
  inline constexpr std::size_t n_##name = n

namespace pd {

PD_FTBL(anyrec_fields, 2);

// Volume
PD_FTBL(voltmp_fields, 5);
PD_FTBL(volperm_fields, 13);
PD_FTBL(volperm_fields_512, 21);
PD_FTBL(volperm_nt_part_type_fields, 1);
PD_FTBL(volperm_nt_vol_guid_fields, 1);
PD_FTBL(volperm_prefer_fields, 1);
PD_FTBL(volperm_log_rid_fields, 1);
PD_FTBL(volperm_subvolume_fields, 2);
PD_FTBL(volperm_checkpoint_fields, 1);
PD_FTBL(volperm_checkpoint_fields_512, 1);
PD_FTBL(volperm_recov_seqno_fields, 1);
PD_FTBL(volperm_nt_mount_name_fields, 1);
PD_FTBL(volperm_netmirror_fields, 2);
PD_FTBL(volperm_dco_fields, 1);
PD_FTBL(volperm_pflag2_fields, 1);
PD_FTBL(volperm_pflag3_fields, 1);
PD_FTBL(volperm_cache_fields, 1);
PD_FTBL(volperm_reserved1_fields, 1);
PD_FTBL(volperm_fields_1_2, 10);
PD_FTBL(volperm_detach_fields_1_2, 12);

// Plex
PD_FTBL(plextmp_fields, 5);
PD_FTBL(plexperm_fields, 10);
PD_FTBL(plexperm_stripe_fields, 2);
PD_FTBL(plexperm_stripe_fields_512, 2);
PD_FTBL(plexperm_snap_fields, 2);
PD_FTBL(plexperm_guid_fields, 1);
PD_FTBL(plexperm_dcoplex_fields, 1);
PD_FTBL(plexperm_vsssnapshot_fields, 2);
PD_FTBL(plexperm_comment_fields, 1);
PD_FTBL(plexperm_info_fields, 1);
PD_FTBL(plexperm_mapguid_fields, 1);
PD_FTBL(plexperm_reserved1_fields, 1);
PD_FTBL(plexperm_fields_1_2, 8);
PD_FTBL(plexperm_stripe_fields_1_2, 2);

// Subdisk
PD_FTBL(sdtmp_fields, 5);
PD_FTBL(sdperm_fields, 9);
PD_FTBL(sdperm_fields_512, 13);
PD_FTBL(sdperm_stripe_fields, 1);
PD_FTBL(sdperm_detach_fields, 1);
PD_FTBL(sdperm_minor_fields, 1);
PD_FTBL(sdperm_nt_hiddensec_fields, 1);
PD_FTBL(sdperm_orig_fields, 2);
PD_FTBL(sdperm_orig_fields_512, 2);
PD_FTBL(sdperm_comment_fields, 1);
PD_FTBL(sdperm_reserved1_fields, 1);
PD_FTBL(sdperm_fields_1_2, 8);

// Disk media
PD_FTBL(dmtmp_fields, 5);
PD_FTBL(dmperm_fields_2_0, 6);
PD_FTBL(dmperm_fields_nt_2, 7);
PD_FTBL(dmperm_app_value_fields, 1);
PD_FTBL(dmperm_comment_fields, 1);
PD_FTBL(dmperm_timeout_fields, 1);
PD_FTBL(dmperm_lastdev_fields, 1);
PD_FTBL(dmperm_move_fields, 2);
PD_FTBL(dmperm_stpool_fields, 1);
PD_FTBL(dmperm_info_fields, 1);
PD_FTBL(dmperm_guid_fields, 1);
PD_FTBL(dmperm_cds_fields, 2);
PD_FTBL(dmperm_reserved1_fields, 1);
PD_FTBL(dmperm_fields_1_2, 5);

// Disk group
PD_FTBL(dgtmp_fields, 6);
PD_FTBL(dgperm_fields_nt_1, 5);
PD_FTBL(dgperm_fields_nt_2, 6);
PD_FTBL(dgperm_ncopy_fields, 2);
PD_FTBL(dgperm_base_minor_fields, 1);
PD_FTBL(dgperm_version_fields, 1);
PD_FTBL(dgperm_comment_fields, 1);
PD_FTBL(dgperm_policy_fields, 1);
PD_FTBL(dgperm_move_fields, 2);
PD_FTBL(dgperm_io_fence_fields, 1);
PD_FTBL(dgperm_cds_fields, 1);
PD_FTBL(dgperm_dfpolicy_fields, 1);
PD_FTBL(dgperm_reserved1_fields, 1);
PD_FTBL(dgperm_fields_1_2, 5);

// Disk access
PD_FTBL(daperm_fields, 7);

// Storage pool
PD_FTBL(stpooltmp_fields, 5);
PD_FTBL(stpoolperm_fields, 13);
PD_FTBL(stpoolperm_guid_fields, 1);
PD_FTBL(stpoolperm_reserved1_fields, 1);

// Information record
PD_FTBL(infotmp_fields, 5);
PD_FTBL(infoperm_fields, 9);
PD_FTBL(infoperm_guid_fields, 1);
PD_FTBL(infoperm_reserved1_fields, 1);

// Data change object
PD_FTBL(dcotmp_fields, 5);
PD_FTBL(dcoperm_fields_fmr2, 16);
PD_FTBL(dcoperm_fields, 12);
PD_FTBL(dcoperm_regsz_fields, 1);
PD_FTBL(dcoperm_version_fields, 1);
PD_FTBL(dcoperm_reserved1_fields, 1);

// Snapshot
PD_FTBL(snaptmp_fields, 5);
PD_FTBL(snapperm_fields_fmr2, 14);
PD_FTBL(snapperm_fields, 17);
PD_FTBL(snapperm_guid_fields, 1);
PD_FTBL(snapperm_snpt_fields, 2);
PD_FTBL(linkperm_fields, 3);
PD_FTBL(snapperm_reserved1_fields, 1);

// Replicated volume
PD_FTBL(rvoltmp_fields, 5);
PD_FTBL(rvolperm_fields, 17);
PD_FTBL(rvolperm_logvol_rid_fields, 1);

// Replication link
PD_FTBL(reptmp_fields, 5);
PD_FTBL(repperm_fields, 28);
PD_FTBL(repperm_bandwidth_fields, 1);
PD_FTBL(repperm_ipv6_fields, 2);

// Volume set
PD_FTBL(vsettmp_fields, 5);
PD_FTBL(vsetperm_fields, 18);
PD_FTBL(vsetperm_svm_fields, 1);
PD_FTBL(vsetperm_rvol_fields, 1);
PD_FTBL(vsetperm_reserved1_fields, 1);

// Link set, export, site
PD_FTBL(linksettemp_fields, 5);
PD_FTBL(linksetperm_fields, 18);
PD_FTBL(linksetperm_reserved1_fields, 1);
PD_FTBL(exporttemp_fields, 5);
PD_FTBL(exportperm_fields, 9);
PD_FTBL(exportperm_reserved1_fields, 1);
PD_FTBL(sitetmp_fields, 5);
PD_FTBL(siteperm_fields, 11);
PD_FTBL(siteperm_reserved1_fields, 1);

// Cache
PD_FTBL(cachetmp_fields, 5);
PD_FTBL(cacheperm_fields, 25);
PD_FTBL(cacheperm_svm_fields, 1);
PD_FTBL(cacheperm_version_fields, 1);
PD_FTBL(cacheperm_reserved1_fields, 1);

}  // namespace pd
