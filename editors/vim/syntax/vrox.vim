" The configuration of vrox, see vrox.conf(5).
if exists("b:current_syntax")
  finish
endif
syntax case ignore

" A comment has a line of its own.
syntax match vroxComment "^\s*//.*"

" A header has a blank before its brace; without one the file ends there.
syntax match vroxHeader "^}\?\s*[^=/{}[:space:]][^={}]*\s\ze{" contains=vroxSection
syntax match vroxAttached "^\s*[^=/{}[:space:]]\+{.*"
syntax match vroxSection contained "\%(tcp\|dns\)::Global\|tcpAcl::\|tcpProxy::\|httpMod::\|httpUDP\|dnsAcl\|socks5\|Tun"

" What stands before the '=', a key as it is spelled or something else.
syntax match vroxUnknown "^\s*[^=/{}[:space:]][^={}]*\ze="
syntax match vroxKey "^\s*\%(tcp_listen\|tcp_option\|max_sessions\|maxData_savePath\)\s*\ze="
syntax match vroxKey "^\s*\%(matchMode\|reMatch\|tcpProxy\|keepAlive_s\|timeout\|limit_client_ip\|maxData\|maxSpeed\)\s*\ze="
syntax match vroxKey "^\s*\%(continue_match:\)\?\%(src_ip_byDomain\|dst_ip_byDomain\|hdr_key([^)]*)\|method\|reg_string\|uri\|url\)!\?\s*\ze="
syntax match vroxKey "^\s*\%(continue_match:\)\?\%(src_ip\|dst_ip\|dst_port\|include_module\)!\?\s*\ze="
syntax match vroxKey "^\s*\%(destAddr[46]\?\|tunnel_encrypt\|tunnel_proxy\|socks5_client\|tunnelHttpMod\|httpMod\)\s*\ze="
syntax match vroxKey "^\s*\%(modify_all_request\|set_first\|del_line\|strrep\|regrep\|save_line\)\s*\ze="
syntax match vroxKey "^\s*\%(udp_tproxy_listen\|udp_socks5_listen\|socks5_set_dst\|http_header\|header_host\|encrypt\)\s*\ze="
syntax match vroxKey "^\s*\%(dns_listen\|cachePath\|cacheLimit\|tunnel_proxy_header\|lookup_mode\|query_type\|reg_domain\)\s*\ze="
syntax match vroxKey "^\s*\%(socks5_listen\|handshake_timeout\|user_pass\|socks5_dns\)\s*\ze="
syntax match vroxKey "^\s*\%(mtu\|tun_addr6\|tun_addr\|unix_path\|tcp_WMax\|tcp_RMax\|tun_device\)\s*\ze="

syntax match vroxPlaceholder "\[\%(M\|U\|url\|V\|H\|H_P\|D\)\]\|use_value([^)]*)"
syntax match vroxEscape "\\[rnbvfta1-9]"
syntax keyword vroxWord original_dst deny_network firstMatch no_auto_match httpOverTunnel tcpDNS TFO TDA

highlight default link vroxComment Comment
highlight default link vroxHeader Identifier
highlight default link vroxSection Structure
highlight default link vroxAttached Error
highlight default link vroxKey Keyword
highlight default link vroxUnknown Error
highlight default link vroxPlaceholder Special
highlight default link vroxEscape SpecialChar
highlight default link vroxWord Constant

let b:current_syntax = "vrox"
