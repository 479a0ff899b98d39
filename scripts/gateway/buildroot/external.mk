include $(sort $(wildcard $(BR2_EXTERNAL_USBMGRD_PATH)/*/*.mk))
