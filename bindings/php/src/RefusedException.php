<?php

declare(strict_types=1);

namespace Korlo\Settings;

/**
 * The access rules of the settings server do not allow a change to this client. Nothing of it was made.
 */
final class RefusedException extends \RuntimeException implements SettingsException
{
    /**
     * @param list<string> $groups the names and patterns of the change that are not allowed, at most 64
     */
    public function __construct(string $message, public readonly array $groups)
    {
        parent::__construct($message);
    }
}
