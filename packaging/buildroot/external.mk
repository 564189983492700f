include $(sort $(wildcard $(BR2_EXTERNAL_BONJOUR_PATH)/package/*/*.mk))
