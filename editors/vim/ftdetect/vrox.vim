autocmd BufNewFile,BufRead vrox.conf,*.vrox,*/vrox/*.conf setfiletype vrox
