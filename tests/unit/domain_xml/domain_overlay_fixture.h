// An imported guest whose definition contains every kind of element, and helpers to edit and inspect it.
#pragma once

#include <gtest/gtest.h>

#include <pugixml.hpp>
#include <sstream>
#include <string>

#include "tests/unit/domain_xml/domain_build_fixture.h"
#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {

inline constexpr const char* kOverlayHost = "99999999-2222-4333-8444-555555555555";

// What a test puts into the base's <domain> and <devices>.
inline std::string Base(const std::string& rest = "", const std::string& devices = "") {
  return R"(<domain type='kvm' xmlns:qemu='http://libvirt.org/schemas/domain/qemu/1.0'>
  <name>guest</name>
  <uuid>11111111-2222-4333-8444-555555555555</uuid>
  <title>Somebody's guest</title>
  <description>first</description>
  <metadata><their:app xmlns:their='http://example.org/their'>text</their:app></metadata>
  <memory unit='KiB'>1048576</memory>
  <currentMemory unit='KiB'>524288</currentMemory>
  <vcpu placement='static' current='2'>4</vcpu>
  <cputune><shares>512</shares><vcpupin vcpu='0' cpuset='0-1'/><vcpupin vcpu='3' cpuset='0'/></cputune>
  <os>
    <type arch='x86_64' machine='pc-q35-7.2'>hvm</type>
    <boot dev='network'/><boot dev='hd'/>
    <bootmenu enable='yes'/>
  </os>
  <features><acpi/><apic/><hyperv mode='custom'><relaxed state='on'/></hyperv><kvm><hidden state='on'/></kvm></features>
  <cpu mode='host-passthrough' check='none' migratable='on'><topology sockets='2' dies='1' cores='2' threads='1'/></cpu>
  <clock offset='localtime'><timer name='hypervclock' present='yes'/><timer name='rtc' tickpolicy='delay'/></clock>
  <on_poweroff>destroy</on_poweroff><on_reboot>destroy</on_reboot><on_crash>preserve</on_crash>
)" + rest +
         R"(
  <devices>
    <disk type='file' device='disk'>
      <driver name='qemu' type='qcow2' cache='none' io='native' discard='unmap' queues='4'/>
      <source file='/images/system'><seclabel model='dac' relabel='no'/></source>
      <target dev='vda' bus='virtio'/>
      <iotune><total_bytes_sec>1000000</total_bytes_sec></iotune>
      <serial>WD-1</serial>
      <address type='pci' domain='0x0000' bus='0x04' slot='0x00' function='0x0'/>
    </disk>
    <disk type='block' device='disk'>
      <driver name='qemu' type='raw'/><source dev='/dev/vg0/data'/><target dev='sdb' bus='scsi'/>
      <address type='drive' controller='0' bus='0' target='0' unit='0'/>
    </disk>
    <disk type='file' device='cdrom'>
      <driver name='qemu' type='raw'/><source file='/iso/a.iso'/><target dev='sdc' bus='sata'/><readonly/>
      <address type='drive' controller='0' bus='0' target='0' unit='2'/>
    </disk>
    <controller type='usb' index='0' model='qemu-xhci' ports='15'/>
    <controller type='scsi' index='0' model='virtio-scsi'><driver queues='2'/></controller>
    <interface type='bridge'>
      <mac address='52:54:00:00:00:01'/><source bridge='br0'/><virtualport type='openvswitch'/><vlan><tag id='7'/></vlan>
      <target dev='vnet7'/><model type='virtio'/><driver name='vhost' queues='4'/><mtu size='9000'/>
      <address type='pci' domain='0x0000' bus='0x01' slot='0x00' function='0x0'/>
    </interface>
    <interface type='direct'>
      <mac address='52:54:00:00:00:02'/><source dev='eth0' mode='bridge'/><model type='e1000e'/>
    </interface>
    <input type='tablet' bus='usb'><address type='usb' bus='0' port='1'/></input>
    <graphics type='spice' port='5910' autoport='no' listen='127.0.0.1' keymap='de'>
      <listen type='address' address='127.0.0.1'/>
    </graphics>
    <video><model type='qxl' ram='65536' vram='65536' vgamem='16384' heads='1' primary='yes'/></video>
    <hostdev mode='subsystem' type='usb' managed='yes'>
      <source><vendor id='0x1234'/><product id='0x00AB'/></source>
    </hostdev>
)" + devices +
         R"(  </devices>
</domain>)";
}

// The records that the import makes of `xml`, with nothing edited.
inline GuestRecords RecordsOfBase(const std::string& xml) {
  const ImportedGuest imported = MustParse(xml);
  return {imported.id, imported.guest, imported.disks, imported.nics};
}

inline BuildOptions Over(const std::string& base) {
  BuildOptions options;
  options.base_xml = base;
  options.host_id = kOverlayHost;
  return options;
}

// In one form, whatever it looked like; without the mark, and without the <metadata> that it alone made.
inline std::string Canonical(const std::string& xml) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_string(xml.c_str())) << xml;
  pugi::xml_node metadata = document.child("domain").child("metadata");
  metadata.remove_child("vexa:guest");
  if (metadata && !metadata.first_child()) document.child("domain").remove_child(metadata);
  std::ostringstream text;
  document.save(text, "  ");
  return text.str();
}

}  // namespace vexa::domain_xml
