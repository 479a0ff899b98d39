// Bus commands 2 to 12: MiniDLNA and Samba settings, the serial login switch
// and the Samba users. Each handler gets a copy of its payload from the
// dispatch and answers in place.
#include "usbmgrd/usbmgrd.h"

// These come with the server control and the Samba users; until then they
// answer nothing and leave the buffer as the request had it.
void usbmgr_cmd_get_minidlna_conf(MiniDlnaConf&) {}
void usbmgr_cmd_get_samba_conf(SambaConf&) {}
void usbmgr_cmd_get_usb_serial_enable(CmdGetUsbSerialEnable&) {}
void usbmgr_cmd_set_minidlna_conf(CmdSetConf&) {}
void usbmgr_cmd_set_samba_conf(CmdSetConf&) {}
void usbmgr_cmd_set_usb_serial_enable(CmdSetUsbSerialEnable&) {}
void usbmgr_cmd_get_samba_number_of_users(CmdNumber&) {}
void usbmgr_cmd_get_samba_user_info(CmdSambaUserSlot&) {}
void usbmgr_cmd_add_samba_user(CmdSambaUser&) {}
void usbmgr_cmd_remove_samba_user(CmdSambaUser&) {}
// Writes no entry line (its row in the command list is silent).
void usbmgr_cmd_modify_samba_user(CmdSambaUser&) {}
