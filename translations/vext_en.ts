<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="en_US" sourcelanguage="ru_RU">
<context>
    <name>Plugin_base</name>
    <message>
        <source>вызвать можно только как install(scriptEngine)  - отмена</source>
        <translation>can only be called as install(scriptEngine)  - cancelled</translation>
    </message>
</context>
<context>
    <name>QObject</name>
    <message>
        <source>включена</source>
        <translation>switched on</translation>
    </message>
    <message>
        <source>выключена</source>
        <translation>switched off</translation>
    </message>
    <message>
        <source>трассировка %1</source>
        <translation>tracing %1</translation>
    </message>
</context>
<context>
    <name>VEXT_SQL</name>
    <message>
        <source>слишком много вложенных вызовов (%1)</source>
        <translation>too many nested calls (%1)</translation>
    </message>
    <message>
        <source>трассировка %1</source>
        <translation>tracing %1</translation>
    </message>
    <message>
        <source>включена</source>
        <translation>switched on</translation>
    </message>
    <message>
        <source>выключена</source>
        <translation>switched off</translation>
    </message>
    <message>
        <source>Проверить isSupportEvent можно только после открытия соединения с БД</source>
        <translation>isSupportEvent can be checked only after the connection to the database is open</translation>
    </message>
    <message>
        <source>количество аргументов не соответствует количеству запросов</source>
        <translation>the number of arguments differs from the number of statements</translation>
    </message>
    <message>
        <source>каждому запросу необходим массив аргументов</source>
        <translation>every statement needs an array of arguments</translation>
    </message>
    <message>
        <source>использовать как %1</source>
        <translation>use as %1</translation>
    </message>
    <message>
        <source>слишком большой аргумент</source>
        <translation>the argument is too large</translation>
    </message>
    <message>
        <source>потерян объект %1</source>
        <translation>the object %1 is lost</translation>
    </message>
</context>
<context>
    <name>VEXT_sqlThr</name>
    <message>
        <source>нельзя менять имя соединения если %1</source>
        <translation>the connection name cannot be changed while %1</translation>
    </message>
    <message>
        <source>перед открытием БД, закройте соединение с &apos;%1&apos;</source>
        <translation>close the connection to &apos;%1&apos; before opening the database</translation>
    </message>
    <message>
        <source>не смог подключиться к БД &apos;%1&apos;</source>
        <translation>could not connect to the database &apos;%1&apos;</translation>
    </message>
    <message>
        <source>не</source>
        <translation>never</translation>
    </message>
    <message>
        <source>драйвер %1 поддерживает события</source>
        <translation>the driver %1 supports events</translation>
    </message>
    <message>
        <source>не открыто соединение с &apos;%1&apos;</source>
        <translation>the connection to &apos;%1&apos; is not open</translation>
    </message>
    <message>
        <source>SQL запрос отменен</source>
        <translation>SQL query cancelled</translation>
    </message>
    <message>
        <source>текст запроса содержит символ U+0000</source>
        <translation>the statement text holds the character U+0000</translation>
    </message>
    <message>
        <source>COPY через STDIN и STDOUT не поддерживается драйвером</source>
        <translation>COPY through STDIN and STDOUT is not supported by the driver</translation>
    </message>
    <message>
        <source>транзакция потеряна вместе с соединением</source>
        <translation>the transaction was lost together with the connection</translation>
    </message>
    <message>
        <source>sql=&apos;%1&apos;</source>
        <translation>sql=&apos;%1&apos;</translation>
    </message>
    <message>
        <source>ошибка выполнения: &apos;%1&apos;
%2</source>
        <translation>execution error: &apos;%1&apos;
%2</translation>
    </message>
    <message>
        <source>ошибка выполнения: &apos;%1&apos;</source>
        <translation>execution error: &apos;%1&apos;</translation>
    </message>
    <message>
        <source>не смог подготовить процедуру &apos;%1&apos; к выполнению
%2</source>
        <translation>could not prepare the procedure &apos;%1&apos; for execution
%2</translation>
    </message>
    <message>
        <source>sql bind %1 value:  type=%2</source>
        <translation>sql bind %1 value:  type=%2</translation>
    </message>
    <message>
        <source>SQL поток не остановился за %1 мс; запрос мог не поддержать отмену</source>
        <translation>the SQL thread did not stop within %1 ms; the query may not support cancelling</translation>
    </message>
    <message>
        <source>очередь простаивает: %1</source>
        <translation>the queue is idle: %1</translation>
    </message>
    <message>
        <source>соединение закрыто</source>
        <translation>the connection is closed</translation>
    </message>
    <message>
        <source>пустой запрос</source>
        <translation>empty query</translation>
    </message>
</context>
</TS>
