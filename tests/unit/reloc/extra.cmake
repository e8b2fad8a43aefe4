# What never fails as it stands, but whose failure has an answer: GetVolumeDetails, initializeUserSelectedOptions.
target_link_options(unit_reloc PRIVATE
  LINKER:--wrap=_ZN18LinuxSnapshotreloc16GetVolumeDetailsERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE
  LINKER:--wrap=_ZN18LinuxSnapshotreloc29initializeUserSelectedOptionsEv)
